#pragma once

#include "db/FileIdentity.h"

#include <string>

// The files of a catalogue on the disk: made, kept as the daemon's own, and marked not to be copied on write.
// `.quarrow` may belong to a user of the volume, who can put anything there, and exchange it at any moment. All paths
// are those that resolveOwnLinks() has returned: what has become a link since is not followed.

/// Makes root, when the daemon runs as that, the owner of one of the open catalogue's files again: `chown -R` of a
/// volume gives them away. Nothing is done to another file that is at the path.
void keepOwnFile(const std::string& path, const FileIdentity& inUse);

/// Keeps what is in the catalogue's folder, as far as the file system knows of such a thing, from being copied on each
/// write: on a full volume there would be no room for the copy of a page of the mapped index, which ends the process.
/// What is in the folder already stays as it is. False when the file system knows of no such thing.
bool avoidCopyOnWrite(const std::string& path);

/// The same for an index that a kill has left, when nobody uses it. The catalogue must have been admitted.
void avoidCopyOnWriteOfIndex(const std::string& path);

/// Whether files beside the catalogue can be mapped for sharing, as far as its index, which nobody uses, shows.
bool canMapIndex(const std::string& path);

/// Puts a file with that content at `path`, where there is none yet: complete or not at all, also when two daemons are
/// at it. Nothing else is left behind. An SQLite status: SQLITE_OK also when somebody else was faster, SQLITE_FULL
/// without room, SQLITE_CANTOPEN when no file can be made, SQLITE_IOERR for other failures.
int createCatalogueFile(const std::string& path, const std::string& content);
