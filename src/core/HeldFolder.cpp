#include "core/HeldFolder.h"

#include "core/WithoutLinks.h"

#include <cstdio>

std::string HeldFolder::folderOf(const std::string& path)
{
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

std::string HeldFolder::nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

HeldFolder::HeldFolder(const std::string& filePath, int flags)
    : FileDescriptor(openWithoutLinks(folderOf(filePath).c_str(), flags | O_DIRECTORY | O_CLOEXEC))
{
}

int HeldFolder::open(const std::string& name, int flags, mode_t mode) const
{
    return openat(get(), name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode);
}

bool HeldFolder::find(const std::string& name, struct stat64& status) const
{
    return fstatat64(get(), name.c_str(), &status, 0) == 0;
}

bool HeldFolder::rename(const std::string& from, const std::string& to) const
{
    return renameat(get(), from.c_str(), get(), to.c_str()) == 0;
}

void HeldFolder::remove(const std::string& name) const { unlinkat(get(), name.c_str(), 0); }
