#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>

/// The permission to open a catalogue, given after a look at everything that lies under its names: the main file and
/// the side files that SQLite opens beside it. `.quarrow` may belong to a user of the volume, who can put anything
/// there, and exchange it at any moment. So while the object lasts, SQLite, set up for the daemon, opens in this thread
/// under the names of the catalogue nothing but the files that were looked at. One at a time in a thread.
class CatalogueAdmission {
public:
    /// Looks, and makes root, when the daemon runs as that, the owner of what belongs to others. `path` is one that
    /// resolveOwnLinks() has returned: what has become a link since is not followed.
    explicit CatalogueAdmission(const std::string& path);
    ~CatalogueAdmission();
    CatalogueAdmission(const CatalogueAdmission&) = delete;
    CatalogueAdmission& operator=(const CatalogueAdmission&) = delete;

    /// Whether something under the names is no regular file, has a second name, or stays somebody else's, or the
    /// journal is one that no catalogue has.
    bool isRefused() const;
    /// Whether nobody else could write it until now. Otherwise, what SQL it holds is somebody else's.
    bool isTrusted() const;
    /// The content was found harmless: from now on, and after a kill as well, the catalogue is trusted, and the log if
    /// it was opened.
    void trust();
    /// Whether SQLite may open, in this thread, a file of that kind under the path. Under the names of an admission
    /// that lasts it has to be what was looked at. What has come since, and every file elsewhere, must not be one that
    /// still has to be looked into. Does not allocate.
    static bool allows(const char* path, const struct stat64& status);
    /// SQLite has opened, in this thread, a file that is allowed under the path. Does not allocate.
    static void noteOpened(const char* path);

private:
    class Files;
    const std::unique_ptr<Files> files;
    static thread_local Files* current; ///< of the one that lasts in this thread
};
