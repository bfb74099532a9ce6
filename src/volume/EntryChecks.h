#pragma once

#include <sys/stat.h>

#include <string>

class DBFolder;
struct VolumeAccess;

/// Compares the row of one entry with the disk and writes it when it is missing or differs. The caller holds the
/// volume's lock. A failure of the catalogue is logged, unless a stop is requested, and gives false: it is not thrown.
class EntryChecks {
public:
    /// `access` outlives the object.
    explicit EntryChecks(const VolumeAccess& access);

    /// `path` and `startPath` are absolute; `startPath` is where the walk began. True when the folder's row is live and
    /// up to date now. False when the path is no folder, and when the catalogue failed.
    bool checkFolder(const std::string& path, const std::string& startPath, bool isRootWalk) const;
    /// `fullPath` is absolute. True when the file's row is live and up to date now. False when the file is gone or a
    /// link has taken its place, and when the catalogue failed.
    bool checkFile(const std::string& fileName, const std::string& fullPath) const;
    /// As checkFile(), for a file of the folder that is open as `folder`: the kernel need not go down the whole path.
    /// The file counts as there when the folder has been moved away meanwhile: that is an event of its own.
    bool checkFileIn(int folder, const std::string& fileName, const std::string& fullPath) const;

private:
    bool findFolderOnDisk(const std::string& path, bool isStart, struct stat64& status) const;
    void updateFolderRow(const std::string& path, bool isRootWalk, bool isStart, const struct stat64& status) const;
    bool updateFileRow(const std::string& fileName, const std::string& fullPath, const struct stat64& status) const;
    bool findParentOfStray(const std::string& path, DBFolder& folder) const;

    const VolumeAccess& volume;
};
