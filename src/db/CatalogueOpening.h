#pragma once

#include <string>

class CatalogueConnection;

// How a catalogue is opened, or made where there is none.

/// Opens the catalogue. When there is none, makes it first, with the directories above it. Returns an SQLite status;
/// after a failure the caller still closes the connection. Throws DBOperationException, with a log line, when the
/// volume has no room for a new catalogue.
int openOrMakeCatalogue(CatalogueConnection& connection, const std::string& path);

/// Opens an existing catalogue. `path` comes from resolveOwnLinks(). `isMarked`: the folder is marked against copies on
/// write, so an older index gets the mark as well. Returns an SQLite status: SQLITE_CANTOPEN when the files are refused
/// (see CatalogueAdmission), SQLITE_AUTH when the schema is (see lookForForeignSql()).
int openAdmittedCatalogue(CatalogueConnection& connection, const std::string& path, bool isMarked);

/// Whether there is something at `path`; makes the directories above it when there is not.
bool isThereOrMakeFoldersAbove(const char* path);

/// Makes every missing directory above `path`, never the last element. True when `path` is a directory, false in all
/// other cases. A directory that cannot be made is not reported.
bool makeFoldersAbove(const char* path);
