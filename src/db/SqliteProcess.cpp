#include "db/SqliteProcess.h"

#include "db/CatalogueFile.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>

/// In place of open(), for every file that SQLite opens. admitCatalogue() has looked at the names before; a user of the
/// volume may have exchanged a file since, or does so while the catalogue is in use. A pipe is not waited for.
static int openRegularFile(const char* path, int flags, int mode)
{
    // Before as well: to open and close another catalogue under a second name would take away the locks on it.
    const bool isFit = isFitToOpen(path);
    const int descriptor = isFit ? open(path, flags | O_NONBLOCK, static_cast<mode_t>(mode)) : -1;
    if (isFit && (descriptor < 0 || isFitToOpen(descriptor)))
        return descriptor;
    if (descriptor >= 0)
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
