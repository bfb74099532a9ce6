#pragma once

#include <string>

class CatalogueConnection;

// How a catalogue is opened, or made where there is none.

/// Opens the catalogue, or makes it first, with the directories above it. An SQLite status; after a failure the
/// connection is still to be closed. Throws DBOperationException, with a log line, when the volume has no room for a
/// new catalogue.
int openOrMakeCatalogue(CatalogueConnection& connection, const std::string& path);

/// Opens the catalogue, which must be there, if it is one that may be opened; else SQLITE_CANTOPEN or SQLITE_AUTH.
/// `path` is one that resolveOwnLinks() has returned. `isMarked`: whether its folder keeps files from being copied on
/// write, so that an index from before gets the mark as well.
int openAdmittedCatalogue(CatalogueConnection& connection, const std::string& path, bool isMarked);

/// Whether there is something at `path`; makes the directories above it when there is not.
bool isThereOrMakeFoldersAbove(const char* path);

/// Makes every missing directory above `path`, never the last element. True when `path` is a directory already.
bool makeFoldersAbove(const char* path);
