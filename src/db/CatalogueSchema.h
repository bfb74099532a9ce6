#pragma once

#include <string>

struct sqlite3;

// The tables and indexes of a catalogue, as this system's readers rely on them.

/// Runs the schema statements. The failures of all but the last one are ignored; after that one's, throws
/// DBOperationException with a log line.
void makeCatalogueSchema(sqlite3* database);

/// The bytes of a catalogue without rows; none when memory was missing on the way. Throws as makeCatalogueSchema().
std::string emptyCatalogue();

/// SQLITE_AUTH when the schema of the database holds anything that makeCatalogueSchema() does not make: triggers and
/// views run with the daemon's statements, so do the checks, defaults and indexes of a table, and plans follow what a
/// user says of the rows. SQLITE_OK when it does not, else the status of the failure. Leaves the database with a
/// progress handler that ends every longer statement.
int lookForForeignSql(sqlite3* database);
