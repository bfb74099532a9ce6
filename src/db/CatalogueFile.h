#pragma once

#include <memory>
#include <string>

/// What lies on the disk under the names of a catalogue: the main file and the side files that SQLite opens beside it.
/// `.quarrow` may belong to a user of the volume, who can put anything there, and exchange it at any moment. All paths
/// are those that resolveOwnLinks() has returned: what has become a link since is not followed.

/// The leave to open a catalogue. While it lasts, SQLite, set up for the daemon, opens in this thread under the names
/// of the catalogue nothing else than what was looked at.
class CatalogueAdmission {
public:
    /// Looks at everything under the names of the catalogue, and makes root, when the daemon runs as that, the owner of
    /// what belongs to others.
    explicit CatalogueAdmission(const std::string& path);
    ~CatalogueAdmission();
    CatalogueAdmission(const CatalogueAdmission&) = delete;
    CatalogueAdmission& operator=(const CatalogueAdmission&) = delete;

    /// Whether something under the names is no regular file, has a second name, or stays somebody else's.
    bool isRefused() const;
    /// Whether nobody else could write it until now. Otherwise, what SQL it holds is somebody else's.
    bool isTrusted() const;
    /// The content was found harmless: from now on, and after a kill as well, it is trusted.
    void trust() const;
    /// Whether the open file is what was looked at under that path, or the path none of the catalogue's. A file that
    /// has come since must not be one that still has to be looked into.
    bool covers(const char* path, int descriptor) const;
    /// The one that lasts in this thread; nullptr without one.
    static const CatalogueAdmission* current();

private:
    class Files;
    const std::unique_ptr<const Files> files;
};

/// Makes root, when the daemon runs as that, the owner of the open catalogue's files again: `chown -R` of a volume
/// gives them away.
void keepCatalogue(const std::string& path);

/// Whether SQLite may open what is at the path, or work on what it has just opened: see isRefused(). Folders and
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

/// Whether files beside the catalogue can be mapped for sharing, as far as its index, which nobody uses, shows.
bool canMapIndex(const std::string& path);

/// Puts a file with that content at `path`, where there is none yet: complete or not at all, also when two daemons are
/// at it. Nothing else is left behind. An SQLite status: SQLITE_OK also when somebody else was faster, SQLITE_FULL
/// without room, SQLITE_CANTOPEN when no file can be made, SQLITE_IOERR for other failures.
int createCatalogueFile(const std::string& path, const std::string& content);
