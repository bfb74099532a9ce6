#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>

/// The check of everything that lies under the names of a catalogue: the main file and the side files that SQLite opens
/// beside it. `.quarrow` may belong to a user of the volume, who can put anything there and exchange it at any moment.
/// So while the object lives, SQLite opens nothing under these names, in this thread, but the files that were checked.
/// That needs setUpSqliteForDaemon(). A thread has at most one object at a time.
class CatalogueAdmission {
public:
    /// Checks the files. A daemon that runs as root makes root the owner of files of other users. `path` comes from
    /// resolveOwnLinks(); what has become a link since then is not followed.
    explicit CatalogueAdmission(const std::string& path);
    ~CatalogueAdmission();
    CatalogueAdmission(const CatalogueAdmission&) = delete;
    CatalogueAdmission& operator=(const CatalogueAdmission&) = delete;

    /// Whether the catalogue must not be opened: one of its files is no regular file, has a second name, or still
    /// belongs to another user, or its journal is of a kind that no catalogue has.
    bool isRefused() const;
    /// Whether no other user could write the files until now. When false, the SQL in them may be another user's.
    bool isTrusted() const;
    /// Called when the content was found harmless. From now on, also after a kill, the main file is trusted, and the
    /// log too if SQLite has opened it.
    void trust();
    /// Whether SQLite may open, in this thread, a file with that status at the path. Under the names of this thread's
    /// object it must be the file that was checked, or one made since. A file made since, and a file under any other
    /// name, must not carry the mark of one whose content is still to be checked. Does not allocate.
    static bool allows(const char* path, const struct stat64& status);
    /// Called when SQLite has opened, in this thread, an allowed file at the path. Does not allocate.
    static void noteOpened(const char* path);

private:
    class Files;
    const std::unique_ptr<Files> files;
    static thread_local Files* current; ///< of this thread's object; nullptr without one
};
