#include "db/SqliteProcess.h"

#include "core/WithoutLinks.h"
#include "db/CatalogueAdmission.h"
#include "db/FitToOpen.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

static constexpr mode_t notForOthers = S_IWOTH;

/// In place of open(), for every file that SQLite opens. The names of a catalogue were looked at before; a user of the
/// volume may have exchanged a file or the folder since, or does so while the catalogue is in use. A pipe is not waited
/// for.
static int openRegularFile(const char* path, int flags, int mode)
{
    // Before as well: to open and close another catalogue would take away the locks on it.
    struct stat64 status;
    if (lstat64(path, &status) == 0 && !(isFitToOpen(status) && CatalogueAdmission::allows(path, status))) {
        errno = EACCES;
        return -1;
    }
    // A temporary file, under a name that nobody knows, is made in the system's folder, which may be a link.
    const auto openIt = (flags & O_EXCL) != 0
        ? [](const char* name, int how, mode_t bits) { return open(name, how, bits); }
        : openWithoutLinks;
    const int descriptor = openIt(path, flags | O_NONBLOCK, static_cast<mode_t>(mode) & ~notForOthers);
    if (descriptor < 0)
        return descriptor;
    if (isFitToOpen(descriptor) && fstat64(descriptor, &status) == 0 && CatalogueAdmission::allows(path, status)) {
        CatalogueAdmission::noteOpened(path);
        return descriptor;
    }
    close(descriptor);
    errno = EACCES;
    return -1;
}

/// In place of fchown() and fchmod(). SQLite gives side files the owner and mode of what is at the catalogue's path
/// just then, which may be a user's. They stay the daemon's, and nobody else's to write.
static int keepOwner(int descriptor, uid_t owner, gid_t group)
{
    return fchown(descriptor, isOwnUser(owner) ? owner : static_cast<uid_t>(-1), group);
}

static int keepFromOthers(int descriptor, mode_t mode) { return fchmod(descriptor, mode & ~notForOthers); }

static bool endsWith(std::string_view text, std::string_view end)
{
    return text.length() >= end.length() && text.substr(text.length() - end.length()) == end;
}

/// In place of unlink(). A journal can name another file for SQLite to remove, but the daemon makes no such journals:
/// nothing goes but what is named like a side file or one of SQLite's own temporary files.
static int unlinkSideFile(const char* path)
{
    for (const char* side : { "-wal", "-shm", "-journal" }) {
        if (endsWith(path, side))
            return unlinkWithoutLinks(path);
    }
    constexpr std::string_view temporary = "etilqs_";
    const char* slash = std::strrchr(path, '/');
    if (slash != nullptr && std::strncmp(slash + 1, temporary.data(), temporary.length()) == 0)
        return unlink(path);
    errno = EACCES;
    return -1;
}

void setUpSqliteForDaemon()
{
    // SQLite counts the memory it uses, with a lock around each allocation: a quarter of the time of a short statement.
    // Nobody asks for the figures.
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    sqlite3_vfs* files = sqlite3_vfs_find(nullptr);
    if (files == nullptr || files->iVersion < 3)
        return;
    files->xSetSystemCall(files, "open", reinterpret_cast<sqlite3_syscall_ptr>(openRegularFile));
    files->xSetSystemCall(files, "unlink", reinterpret_cast<sqlite3_syscall_ptr>(unlinkSideFile));
    files->xSetSystemCall(files, "fchown", reinterpret_cast<sqlite3_syscall_ptr>(keepOwner));
    files->xSetSystemCall(files, "fchmod", reinterpret_cast<sqlite3_syscall_ptr>(keepFromOthers));
}
