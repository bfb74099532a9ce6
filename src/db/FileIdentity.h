#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

/// Identifies a file whatever its name: by its device and its inode number. The number alone is not enough, because two
/// disks that were set up alike have the same numbers.
class FileIdentity {
public:
    FileIdentity() = default; ///< of no file
    /// Of the file at `path`, links followed; of no file when there is none or it cannot be looked at.
    static FileIdentity of(const std::string& path);

    bool isKnown() const { return inode != 0; }
    /// Whether this very file is at `path`. Only for a known file.
    bool isAt(const std::string& path) const;
    /// Whether `status` is that of this very file. False for an unknown file.
    bool isOf(const struct stat64& status) const;

private:
    dev_t device = 0;
    ino_t inode = 0;
};
