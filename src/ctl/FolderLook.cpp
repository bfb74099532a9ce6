#include "ctl/FolderLook.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

/// The first link on the way to the path that leads to nothing; empty when there is none.
std::string deadLinkIn(const std::string& path)
{
    for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        std::string upTo = path.substr(0, slash);
        struct stat64 status;
        if (lstat64(upTo.c_str(), &status) != 0)
            return "";
        if (S_ISLNK(status.st_mode) && stat64(upTo.c_str(), &status) != 0)
            return upTo;
        if (slash == std::string::npos)
            return "";
    }
}

} // namespace

FolderLook lookAtFolder(const std::string& path)
{
    struct stat64 status;
    if (stat64(path.c_str(), &status) == 0)
        return { S_ISDIR(status.st_mode) ? FolderLook::State::folder : FolderLook::State::other, "" };
    if (errno == ENOENT) {
        const std::string link = deadLinkIn(path);
        return { link.empty() ? FolderLook::State::missing : FolderLook::State::deadLink, link };
    }
    if (errno == ENOTDIR)
        return { FolderLook::State::other, "" };
    return { FolderLook::State::unknown, std::strerror(errno) };
}

std::string canonicalPath(const std::string& path)
{
    std::error_code error;
    const fs::path found = fs::weakly_canonical(path, error);
    std::string text = error ? fs::path(path).lexically_normal().string() : found.string();
    while (text.length() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

bool isEmptyFolder(const std::string& path)
{
    std::error_code error;
    return fs::is_empty(path, error) && !error;
}

bool isMountPoint(const std::string& path)
{
    struct stat64 here;
    struct stat64 above;
    if (stat64(path.c_str(), &here) != 0 || stat64((path + "/..").c_str(), &above) != 0)
        return false;
    return here.st_dev != above.st_dev || here.st_ino == above.st_ino; // the root folder lies in itself
}

bool isOnReadOnlyFileSystem(const std::string& path)
{
    struct statvfs64 status;
    return statvfs64(path.c_str(), &status) == 0 && (status.f_flag & ST_RDONLY) != 0;
}

bool hasOddElements(const std::string& path)
{
    for (std::size_t start = path.empty() || path.front() != '/' ? 0 : 1; start <= path.length() && !path.empty();) {
        const std::size_t end = std::min(path.find('/', start), path.length());
        const std::string element = path.substr(start, end - start);
        if (element.empty() || element == "." || element == "..")
            return true;
        start = end + 1;
    }
    return false;
}
