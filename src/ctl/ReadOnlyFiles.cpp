#include "ctl/ReadOnlyFiles.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/types.h>

static sqlite3_vfs* usualFiles()
{
    static sqlite3_vfs* const usual = sqlite3_vfs_find(nullptr);
    return usual;
}

static int openForReading(sqlite3_vfs*, const char* path, sqlite3_file* file, int flags, int* outFlags)
{
    flags = (flags & ~(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)) | SQLITE_OPEN_READONLY;
    return usualFiles()->xOpen(usualFiles(), path, file, flags, outFlags);
}

static int keepFile(sqlite3_vfs*, const char*, int) { return SQLITE_OK; }

static int keepOwner(int, uid_t, gid_t) { return 0; }

static int keepMode(int, mode_t) { return 0; }

/// A user of the volume can put a pipe in a file's place at any moment, which would otherwise be waited for.
static int openAtOnce(const char* path, int flags, int mode)
{
    return open(path, flags | O_NONBLOCK, static_cast<mode_t>(mode));
}

template <typename Call>
static void replaceCall(sqlite3_vfs& files, const char* name, Call* call)
{
    files.xSetSystemCall(&files, name, reinterpret_cast<sqlite3_syscall_ptr>(call));
}

const char* readOnlyFiles()
{
    static sqlite3_vfs reading = *usualFiles();
    if (reading.xOpen != openForReading) {
        reading.zName = "reading";
        reading.xOpen = openForReading;
        reading.xDelete = keepFile;
        replaceCall(reading, "fchown", keepOwner);
        replaceCall(reading, "fchmod", keepMode);
        replaceCall(reading, "open", openAtOnce);
        sqlite3_vfs_register(&reading, 0);
    }
    return reading.zName;
}
