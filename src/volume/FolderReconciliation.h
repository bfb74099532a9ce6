#pragma once

#include "db/DBFolder.h"
#include "db/SimpleDBFile.h"

#include <list>
#include <string>
#include <vector>

class EntryChecks;
class FolderReader;
class Transaction;
struct VolumeAccess;

/// Brings the rows of one folder's entries in line with the disk. The folder's own row must be there already. An object
/// is used for one run().
class FolderReconciliation {
public:
    /// How many entries of a folder were new and gone. New folders are counted only before a catalogued one.
    struct Counters {
        int addFileCount = 0;
        int deleteFileCount = 0;
        int addFolderCount = 0;
        int deleteFolderCount = 0;
    };

    /// The arguments outlive the object. `folder` is absolute. `configuredAbove` is the same path or one above it;
    /// below it no link is followed. run() sets `shown` to 0 and then counts in it.
    FolderReconciliation(const VolumeAccess& access, const EntryChecks& checks, const std::string& folder,
        const std::string& configuredAbove, Counters& shown);

    /// Lists the folder in the catalogue, watches it, reads it from the disk and writes the differences. The caller
    /// holds the volume's lock and has begun the transaction. Nothing is written when the folder cannot be read to its
    /// end. A stop ends the work early; what was written until then is right. Throws DBOperationException when the
    /// catalogue fails: the caller then rolls the transaction back.
    void run(const Transaction& transaction);

    /// The absolute paths of the subfolders that run() has read, in the order of the disk. Also after a failure.
    std::vector<std::string>& subfolders() { return subfolderPaths; }
    /// The number of files that run() has read. Also after a failure.
    int filesOnDisk() const { return static_cast<int>(diskFiles.size()); }

private:
    void listCatalogue(DBFolder& folder);
    bool listDisk(FolderReader& reader, DBFolder& folder);
    void mergeFiles(int folderOnDisk, const Transaction& transaction);
    void mergeFolders();
    void updateFile(int folderOnDisk, const std::string& fileName, const Transaction& transaction);
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
    std::vector<std::string> subfolderPaths; ///< absolute paths of the same folders
};
