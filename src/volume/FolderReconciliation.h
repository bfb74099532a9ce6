#pragma once

#include "db/DBFolder.h"
#include "db/SimpleDBFile.h"

#include <list>
#include <string>
#include <vector>

class EntryChecks;
class Transaction;
struct VolumeAccess;

/// Brings the rows of one folder's entries in line with the disk, once. The folder's own row is there already.
class FolderReconciliation {
public:
    struct Counters {
        int addFileCount = 0;
        int deleteFileCount = 0;
        int addFolderCount = 0;
        int deleteFolderCount = 0;
    };

    /// The arguments outlive the object. `folder` is absolute; below `configuredAbove`, the same or a path above it, no
    /// link is followed. `shown` become those of this folder as soon as run() begins.
    FolderReconciliation(const VolumeAccess& access, const EntryChecks& checks, const std::string& folder,
        const std::string& configuredAbove, Counters& shown);

    /// Lists the folder in the catalogue, watches it, reads it from disk and writes the difference, in the caller's
    /// transaction and under the volume's lock, which it holds. A folder that cannot be read to its end stays as it is,
    /// and so does what a stop comes before. Throws DBOperationException: the transaction is then to be given up.
    void run(const Transaction& transaction);

    /// The folders that were read so far, also when run() failed: absolute, in the order of the disk.
    std::vector<std::string>& subfolders() { return subfolderPaths; }
    /// How many files were read so far.
    int filesOnDisk() const { return static_cast<int>(diskFiles.size()); }

private:
    void listCatalogue(DBFolder& folder);
    bool listDisk(DBFolder& folder);
    void mergeFiles(const Transaction& transaction);
    void mergeFolders();
    void updateFile(const std::string& fileName, const Transaction& transaction);
    void removeVanishedFile(const SimpleDBFile& file);
    void removeVanishedFolder(const DBFolder& folder);

    const VolumeAccess& volume;
    const EntryChecks& entryChecks;
    const std::string& path;
    const std::string& configuredPath;
    Counters& counters;

    std::list<SimpleDBFile> cataloguedFiles;
    std::list<DBFolder> cataloguedFolders;
    std::vector<std::string> diskFiles;      ///< names
    std::vector<std::string> diskFolders;    ///< volume-relative paths
    std::vector<std::string> subfolderPaths; ///< the same folders
};
