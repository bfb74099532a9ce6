#include "volume/Links.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

/// The folder in `start` that is there without following a link; -1 with errno set, ELOOP for a link.
static int openBelow(int start, const std::string& relativePath, unsigned long long flags)
{
    open_how how = {};
    how.flags = flags | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return static_cast<int>(syscall(SYS_openat2, start, relativePath.c_str(), &how, sizeof how));
}

/// The look at one folder after the other that older kernels need; in a deep tree it takes long.
static bool hasLinkBetween(const std::string& path, const std::string& configuredPath)
{
    std::string::size_type slash = configuredPath.length();
    while ((slash = path.find('/', slash + 1)) != std::string::npos) {
        struct stat64 status;
        if (lstat64(path.substr(0, slash).c_str(), &status) == 0 && S_ISLNK(status.st_mode))
            return true;
    }
    return false;
}

bool isBehindLink(const std::string& path, const std::string& configuredPath)
{
    const std::string::size_type last = path.rfind('/');
    if (last == std::string::npos || last <= configuredPath.length())
        return false;
    const int start = open((configuredPath + "/").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (start >= 0) {
        const std::string between = path.substr(configuredPath.length() + 1, last - configuredPath.length() - 1);
        const int found = openBelow(start, between, O_PATH);
        const int reason = errno;
        close(start);
        if (found >= 0)
            close(found);
        if (found >= 0 || reason == ELOOP)
            return found < 0;
    }
    return hasLinkBetween(path, configuredPath);
}

int openFolder(const std::string& path, const std::string& configuredPath)
{
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC;
    if (path == configuredPath)
        return open(path.c_str(), flags);
    const std::string above = configuredPath + "/";
    if (path.compare(0, above.length(), above) == 0) {
        const int start = open(above.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        const int descriptor = start < 0 ? -1 : openBelow(start, path.substr(above.length()), O_RDONLY | O_NONBLOCK);
        const int reason = errno;
        if (start >= 0)
            close(start);
        if (descriptor >= 0
            || (reason != ENOSYS && reason != EPERM)) // an old kernel, or a sandbox that forbids the call
            return descriptor;
    }
    return open(path.c_str(), flags | O_NOFOLLOW);
}

static bool findEntry(const std::string& path, const std::string& configuredPath, struct stat64& status)
{
    return !isBehindLink(path, configuredPath) && lstat64(path.c_str(), &status) == 0;
}

bool findFile(const std::string& path, const std::string& configuredPath, struct stat64& status)
{
    return findEntry(path, configuredPath, status) && !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode);
}

bool findFolder(const std::string& path, const std::string& configuredPath, struct stat64& status)
{
    return findEntry(path, configuredPath, status) && S_ISDIR(status.st_mode);
}
