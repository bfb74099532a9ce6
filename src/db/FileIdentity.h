#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

/// Which file it is, whatever its name: its device and its number there. The number alone would not do, since two disks
/// that were set up alike have the same ones.
class FileIdentity {
public:
    FileIdentity() = default; ///< that of no file
    /// That of the file at `path`; that of no file when it cannot be looked at.
    static FileIdentity of(const std::string& path);

    bool isKnown() const { return inode != 0; }
    /// Whether this very file is at `path`.
    bool isAt(const std::string& path) const;
    /// Whether that is what was found out about this very file.
    bool isOf(const struct stat64& status) const;

private:
    dev_t device = 0;
    ino_t inode = 0;
};
