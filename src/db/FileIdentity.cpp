#include "db/FileIdentity.h"

#include <sys/stat.h>

FileIdentity FileIdentity::of(const std::string& path)
{
    FileIdentity identity;
    struct stat64 status;
    if (stat64(path.c_str(), &status) == 0) {
        identity.device = status.st_dev;
        identity.inode = status.st_ino;
    }
    return identity;
}

bool FileIdentity::isOf(const struct stat64& status) const
{
    return isKnown() && status.st_dev == device && status.st_ino == inode;
}

bool FileIdentity::isAt(const std::string& path) const
{
    const FileIdentity there = of(path);
    return there.device == device && there.inode == inode;
}
