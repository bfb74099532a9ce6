#pragma once

#include "core/FileDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <string>

/// The folder of a file, held by a descriptor: what is done to a name in it is done there, whatever has come to its
/// path since. No operation but find() follows a link.
class HeldFolder : public FileDescriptor {
public:
    /// `flags`: O_PATH, or O_RDONLY for a folder that is to be synced or marked. Not open with a link in the path.
    explicit HeldFolder(const std::string& filePath, int flags = O_PATH);

    /// Like open(), closed in programs that are started.
    int open(const std::string& name, int flags, mode_t mode = 0) const;
    /// Like stat(); false, with errno set, when it fails.
    bool find(const std::string& name, struct stat64& status) const;
    bool rename(const std::string& from, const std::string& to) const;
    void remove(const std::string& name) const;

    /// "./", or all up to the last slash.
    static std::string folderOf(const std::string& path);
    /// All after the last slash.
    static std::string nameOf(const std::string& path);
};
