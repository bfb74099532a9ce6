#include "db/SqliteProcess.h"

#include "core/WithoutLinks.h"
#include "db/CatalogueAdmission.h"
#include "db/FitToOpen.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

/// In place of open(), for every file that SQLite opens. The names of a catalogue were looked at before; a user of the
/// volume may have exchanged a file or the folder since, or does so while the catalogue is in use. A pipe is not waited
/// for.
static int openRegularFile(const char* path, int flags, int mode)
{
    // A temporary file, under a name that nobody knows, is made in the system's folder, which may be a link.
    const auto openIt = (flags & O_EXCL) != 0
        ? [](const char* name, int how, mode_t bits) { return open(name, how, bits); }
        : openWithoutLinks;
    // Before as well: to open and close another catalogue under a second name would take away the locks on it.
    const bool isFit = isFitToOpen(path);
    const int descriptor = isFit ? openIt(path, flags | O_NONBLOCK, static_cast<mode_t>(mode)) : -1;
    if (isFit && descriptor < 0)
        return descriptor;
    const CatalogueAdmission* admission = CatalogueAdmission::current();
    if (isFit && isFitToOpen(descriptor) && (admission == nullptr || admission->covers(path, descriptor)))
        return descriptor;
    if (descriptor >= 0)
        close(descriptor);
    errno = EACCES;
    return -1;
}

static bool endsWith(std::string_view text, std::string_view end)
{
    return text.length() >= end.length() && text.substr(text.length() - end.length()) == end;
}

/// In place of unlink(). A journal can name another file for SQLite to remove, but the daemon makes no such journals:
/// nothing goes but side files and SQLite's own temporary files.
static int unlinkSideFile(const char* path)
{
    for (const char* side : { "-wal", "-shm", "-journal" }) {
        if (endsWith(path, side))
            return unlinkWithoutLinks(path);
    }
    if (std::strstr(path, "/etilqs_") != nullptr)
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
}
