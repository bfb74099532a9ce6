#pragma once

#include "core/FileDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <string>

/// The folder of a file, held by a descriptor. Every operation works in that very folder, whatever is at its path by
/// then. No operation but find() follows a link.
class HeldFolder : public FileDescriptor {
public:
    /// `flags`: O_PATH, or O_RDONLY for a folder that is to be synced or marked. isOpen() is false when the folder
    /// cannot be opened or a link is in its path.
    explicit HeldFolder(const std::string& filePath, int flags = O_PATH);

    /// Like open(): a descriptor that started programs do not inherit, or -1 with errno set.
    int open(const std::string& name, int flags, mode_t mode = 0) const;
    /// Like stat(), links followed. False, with errno set, when it fails.
    bool find(const std::string& name, struct stat64& status) const;
    /// Within the folder. False, with errno set, when it fails.
    bool rename(const std::string& from, const std::string& to) const;
    /// Removes a file. A failure is ignored.
    void remove(const std::string& name) const;

    /// The path up to its last slash, the slash included; "./" when it has none.
    static std::string folderOf(const std::string& path);
    /// What follows the last slash.
    static std::string nameOf(const std::string& path);
};
