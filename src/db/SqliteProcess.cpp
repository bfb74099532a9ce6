#include "db/SqliteProcess.h"

#include "db/CatalogueFile.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

/// In place of open(), for every file that SQLite opens. admitCatalogue() has looked at the names before; a user of the
/// volume may have exchanged a file since, or does so while the catalogue is in use. A pipe is not waited for.
static int openRegularFile(const char* path, int flags, int mode)
{
    struct stat64 status;
    // Before as well: to open and close another catalogue under a second name would take away the locks on it.
    if (lstat64(path, &status) == 0 && !isFitToOpen(status)) {
        errno = EACCES;
        return -1;
    }
    const int descriptor = open(path, flags | O_NONBLOCK, static_cast<mode_t>(mode));
    if (descriptor < 0 || (fstat64(descriptor, &status) == 0 && isFitToOpen(status)))
        return descriptor;
    close(descriptor);
    errno = EACCES;
    return -1;
}

void setUpSqliteForDaemon()
{
    // SQLite counts the memory it uses, with a lock around each allocation: a quarter of the time of a short statement.
    // Nobody asks for the figures.
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    sqlite3_vfs* files = sqlite3_vfs_find(nullptr);
    if (files != nullptr && files->iVersion >= 3)
        files->xSetSystemCall(files, "open", reinterpret_cast<sqlite3_syscall_ptr>(openRegularFile));
}
