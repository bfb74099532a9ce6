#include "db/FitToOpen.h"

#include "core/WithoutLinks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

bool isFitToOpen(const struct stat64& status)
{
    if (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode))
        return false;
    return !S_ISREG(status.st_mode) || (status.st_nlink <= 1 && isOwnUser(status.st_uid));
}

bool isFitToOpen(int descriptor)
{
    struct stat64 status;
    return fstat64(descriptor, &status) == 0 && isFitToOpen(status)
        && (!S_ISREG(status.st_mode) || hasItsName(descriptor));
}

bool hasItsName(int descriptor)
{
    constexpr char gone[] = " (deleted)";
    constexpr std::size_t length = sizeof gone - 1;
    char self[32];
    char target[PATH_MAX + sizeof gone];
    std::snprintf(self, sizeof self, "/proc/self/fd/%d", descriptor);
    const ssize_t n = readlink(self, target, sizeof target);
    if (n < 0)
        return errno == ENOENT; // true where /proc is missing; other failures hide the answer
    return n < static_cast<ssize_t>(length) || std::memcmp(target + n - length, gone, length) != 0;
}
