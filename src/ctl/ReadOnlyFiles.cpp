#include "ctl/ReadOnlyFiles.h"

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

static int keepOwner(int, uid_t, gid_t) { return 0; }

const char* readOnlyFiles()
{
    static sqlite3_vfs reading = *usualFiles();
    if (reading.xOpen != openForReading) {
        reading.zName = "reading";
        reading.xOpen = openForReading;
        reading.xSetSystemCall(&reading, "fchown", reinterpret_cast<sqlite3_syscall_ptr>(keepOwner));
        sqlite3_vfs_register(&reading, 0);
    }
    return reading.zName;
}
