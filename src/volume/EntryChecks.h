#pragma once

#include <sys/stat.h>

#include <string>

class DBFolder;
struct VolumeAccess;

/// Compares the row of one entry with the disk and writes it when it is missing or differs. The caller holds the
/// volume's lock. Both operations log a failure of the catalogue, unless a stop is the reason, and throw nothing for
/// it.
class EntryChecks {
public:
    /// `access` outlives the object.
    explicit EntryChecks(const VolumeAccess& access);

    /// True when the folder's row is there and up to date; false for what is no folder and on failure.
    bool checkFolder(const std::string& path, const std::string& startPath, bool isRootWalk) const;
    /// True when the file's row is there and up to date; false for what is gone and on failure.
    bool checkFile(const std::string& fileName, const std::string& fullPath) const;

private:
    bool findFolderOnDisk(const std::string& path, bool isStart, struct stat64& status) const;
    void updateFolderRow(const std::string& path, bool isRootWalk, bool isStart, const struct stat64& status) const;
    bool findParentOfStray(const std::string& path, DBFolder& folder) const;

    const VolumeAccess& volume;
};
