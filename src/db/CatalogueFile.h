#pragma once

#include "db/FileIdentity.h"

#include <string>

// The files of a catalogue on the disk: how they are made, kept in the daemon's ownership, and marked not to be copied
// on write. `.quarrow` may belong to a user of the volume, who can put anything there and exchange it at any moment.
// All paths are the catalogue's, unless stated otherwise, and come from resolveOwnLinks(): what has become a link since
// then is not followed.

/// Gives one of the open catalogue's files, at `path`, back to root when another user owns it by now: a `chown -R` of
/// the volume does that. Does nothing when the daemon does not run as root, and when the file at the path is not
/// `inUse`.
void keepOwnFile(const std::string& path, const FileIdentity& inUse);

/// Marks the catalogue's folder, so that the file system does not copy its new files on each write. On a full volume
/// there would be no room for the copy of a page of the mapped index, and that ends the process. Files that are already
/// in the folder stay unmarked. False when the file system has no such mark.
bool avoidCopyOnWrite(const std::string& path);

/// Marks an index that a killed daemon has left, when nobody uses it. The catalogue must have been admitted.
void avoidCopyOnWriteOfIndex(const std::string& path);

/// Whether the index, which nobody may be using, can be mapped for sharing. True when it cannot be tried.
bool canMapIndex(const std::string& path);

/// Makes the file at `path` with that content, complete or not at all. Two daemons may do so at the same moment. No
/// temporary file stays. Returns an SQLite status: SQLITE_OK also when another program has made the file meanwhile,
/// SQLITE_FULL when there is no room, SQLITE_CANTOPEN when no file can be made, SQLITE_IOERR for other failures.
int createCatalogueFile(const std::string& path, const std::string& content);
