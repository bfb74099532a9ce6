#pragma once

#include <string>

/// What lies on the disk under the names of a catalogue: the main file and the side files that SQLite opens beside it.
/// `.quarrow` may belong to a user of the volume, who can put anything there.

/// Whether the catalogue at a path may be opened.
enum class Admission {
    refused,   ///< something under its names is no regular file, has a second name, or belongs to somebody else
    untrusted, ///< yes, but somebody else could write it until now: what SQL it holds is that user's
    trusted
};

/// Looks at everything under the names of the catalogue, and makes root, when the daemon runs as that, the owner of
/// what belongs to others. Once the content was found harmless, trustCatalogue() says so.
Admission admitCatalogue(const std::string& path);

/// The content of an untrusted catalogue was found harmless: from now on, and after a kill as well, it is trusted.
void trustCatalogue(const std::string& path);

/// Makes root, when the daemon runs as that, the owner of the open catalogue's files again: `chown -R` of a volume
/// gives them away.
void keepCatalogue(const std::string& path);

/// Whether SQLite may open what is at the path, or work on what it has just opened: see Admission::refused. Folders and
/// devices are no files.
/// Neither allocates: SQLite calls them, and no exception may pass through it.
bool isFitToOpen(const char* path);
bool isFitToOpen(int descriptor);

/// Keeps what is in the catalogue's folder, as far as the file system knows of such a thing, from being copied on each
/// write: on a full volume there would be no room for the copy of a page of the mapped index, which ends the process.
/// What is in the folder already stays as it is. False when the file system knows of no such thing.
bool avoidCopyOnWrite(const std::string& path);

/// The same for an index that a kill has left, when nobody uses it. The catalogue must have been admitted.
void avoidCopyOnWriteOfIndex(const std::string& path);

/// Puts a file with that content at `path`, where there is none yet: complete or not at all, also when two daemons are
/// at it. Nothing else is left behind. An SQLite status: SQLITE_OK also when somebody else was faster, SQLITE_FULL
/// without room, SQLITE_CANTOPEN when no file can be made, SQLITE_IOERR for other failures.
int createCatalogueFile(const std::string& path, const std::string& content);
