#include "volume/Links.h"

#include "core/FileDescriptor.h"
#include "core/WithoutLinks.h"

#include <fcntl.h>

#include <cerrno>

/// Opens a folder below `start` without following a link. -1 with errno set on failure, ELOOP or ENOTDIR for a link.
static int openBelow(int start, const std::string& relativePath, int flags)
{
    return openWithoutLinksBelow(start, relativePath.c_str(), flags | O_DIRECTORY | O_CLOEXEC);
}

/// Looks at one folder after the other, which takes long in a deep tree. So it is used only where the path cannot be
/// opened, for a link or for another reason.
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
    const FileDescriptor start(open((configuredPath + "/").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (start.isOpen()) {
        const std::string between = path.substr(configuredPath.length() + 1, last - configuredPath.length() - 1);
        const FileDescriptor found(openBelow(start.get(), between, O_PATH));
        if (found.isOpen() || errno == ELOOP)
            return !found.isOpen();
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
        const FileDescriptor start(open(above.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        return start.isOpen() ? openBelow(start.get(), path.substr(above.length()), flags) : -1;
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
