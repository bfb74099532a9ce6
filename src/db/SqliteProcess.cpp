#include "db/SqliteProcess.h"

#include "core/WithoutLinks.h"
#include "db/CatalogueAdmission.h"
#include "db/FitToOpen.h"
#include "db/SqliteMemory.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

static constexpr mode_t notForOthers = S_IWOTH;

/// SQLite calls this in place of open(). The files of a catalogue were checked before, but a user of the volume may
/// have exchanged a file or the folder since, or may do so while the catalogue is in use. So the file is checked again
/// once it is open. O_NONBLOCK keeps it from waiting for a pipe.
static int openRegularFile(const char* path, int flags, int mode)
{
    // Also checked before it is opened: opening and closing another open catalogue would release the locks on it.
    struct stat64 status;
    if (lstat64(path, &status) == 0 && !(isFitToOpen(status) && CatalogueAdmission::allows(path, status))) {
        errno = EACCES;
        return -1;
    }
    // O_EXCL means one of SQLite's temporary files. It is made in the system's folder, which may be a link.
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

/// This and the next one stand in for fchown() and fchmod(). SQLite gives side files the owner and the mode of what is
/// at the catalogue's path at that moment, which may be a user's file. The side files stay the daemon's own, and others
/// cannot write them.
static int keepOwner(int descriptor, uid_t owner, gid_t group)
{
    return fchown(descriptor, isOwnUser(owner) ? owner : static_cast<uid_t>(-1), group);
}

static int keepFromOthers(int descriptor, mode_t mode) { return fchmod(descriptor, mode & ~notForOthers); }

static bool endsWith(std::string_view text, std::string_view end)
{
    return text.length() >= end.length() && text.substr(text.length() - end.length()) == end;
}

/// Stands in for unlink(). A prepared journal can name any file for SQLite to remove. So only files are removed that
/// are named like a side file, or like one of SQLite's own temporary files.
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
    // SQLite would count the memory that it uses, with a lock around each allocation. That takes a quarter of the time
    // of a short statement, and nobody asks for the figures.
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    giveSqliteMemoryPerThread();
    sqlite3_vfs* files = sqlite3_vfs_find(nullptr);
    if (files == nullptr || files->iVersion < 3)
        return;
    files->xSetSystemCall(files, "open", reinterpret_cast<sqlite3_syscall_ptr>(openRegularFile));
    files->xSetSystemCall(files, "unlink", reinterpret_cast<sqlite3_syscall_ptr>(unlinkSideFile));
    files->xSetSystemCall(files, "fchown", reinterpret_cast<sqlite3_syscall_ptr>(keepOwner));
    files->xSetSystemCall(files, "fchmod", reinterpret_cast<sqlite3_syscall_ptr>(keepFromOthers));
}
