#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

/// A lock that a process holds on a file.
struct FileLock {
    int process = 0;
    dev_t device = 0;
    ino_t inode = 0;
};

/// The locks in the kernel's list, as its file /proc/locks has them, that a process holds by fcntl(). Those that it
/// waits for, and lines that are no such thing, are left out. Some file systems are listed there under another device
/// than stat() gives (btrfs, overlays).
std::vector<FileLock> parseFileLocks(const std::string& text);
