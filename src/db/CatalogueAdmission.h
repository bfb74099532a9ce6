#pragma once

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

    /// Whether something under the names is no regular file, has a second name, or stays somebody else's.
    bool isRefused() const;
    /// Whether nobody else could write it until now. Otherwise, what SQL it holds is somebody else's.
    bool isTrusted() const;
    /// The content was found harmless: from now on, and after a kill as well, it is trusted.
    void trust() const;
    /// Whether the open file is what was looked at under that path, or the path none of the catalogue's. A file that
    /// has come since must not be one that still has to be looked into. Does not allocate.
    bool covers(const char* path, int descriptor) const;
    /// The one that lasts in this thread; nullptr without one.
    static const CatalogueAdmission* current();

private:
    class Files;
    const std::unique_ptr<const Files> files;
};
