#pragma once

#include <string>

struct sqlite3;

// The tables and indexes of a catalogue. Programs that read catalogues rely on them.

/// Runs the schema statements. Only a failure of the last one counts: then throws DBOperationException after a log
/// line.
void makeCatalogueSchema(sqlite3* database);

/// The bytes of a catalogue without rows; empty when memory ran out. Throws as makeCatalogueSchema() does.
std::string emptyCatalogue();

/// Returns SQLITE_OK when the schema of the database holds nothing but what makeCatalogueSchema() makes, SQLITE_AUTH
/// when it holds anything else, and another status when it cannot be read. Triggers, views, checks, defaults and
/// indexes of another user would run as part of the daemon's statements, and tables like those of ANALYZE would steer
/// them. Leaves the database with a progress handler that ends every longer statement.
int lookForForeignSql(sqlite3* database);
