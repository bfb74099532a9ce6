#pragma once

#include "db/DBFile.h"
#include "db/DBFolder.h"
#include "db/SimpleDBFile.h"

#include <functional>
#include <list>
#include <memory>
#include <stack>
#include <string>
#include <vector>

struct sqlite3_stmt;
class CatalogueConnection;
class WriteAheadLog;

/// The catalogue of one volume: an SQLite file with a table of folders and one of files.
///
/// The object takes no lock: its caller, who holds the volume's, makes one call at a time. Every operation on rows
/// logs and throws DBOperationException when SQLite fails, and waits, a second at a time, while another program keeps
/// the database busy. Paths are volume-relative; times are seconds since the epoch; rows are marked deleted and only
/// the purge removes them.
class VolumeDBManager {
public:
    VolumeDBManager();
    virtual ~VolumeDBManager(); ///< closes the catalogue, leaving a plain single file when no reader prevents it
    VolumeDBManager(const VolumeDBManager&) = delete;
    VolumeDBManager& operator=(const VolumeDBManager&) = delete;

    // The catalogue file

    /// Opens the catalogue, or makes it, with the directories above it, when there is none; closes the one that was
    /// open. An existing file is taken as it is, unless it is no regular file with one name, belongs to somebody else
    /// (for root: did, and holds more than the tables and indexes made here). True, or throws DBOperationException;
    /// every other operation does before open().
    bool open(const char* path);
    /// Whether there is something at `path`; makes the directories above it when there is not.
    bool checkIfDBExists(const char* path);
    /// Makes every missing directory above `path`, never the last element. True when `path` is a directory already.
    bool createPath(const char* path);
    /// Runs the schema statements on an empty catalogue. The result carries no meaning.
    bool createDBStructure();
    /// From now on busy waits and long statements end with a failure, so that the daemon can stop. Any thread.
    void requestStop();
    /// Goes (back) to write-ahead logging; does nothing when that is in use. The file stays as it is when another
    /// program stands in the way, when the volume is all but full, or when the file system cannot map files for
    /// sharing.
    void useWriteAheadLog();
    /// Keeps the files its own that the catalogue consists of: somebody may have given them away meanwhile.
    void keepFiles();
    /// Copies what the write-ahead log holds into the main file, as far as readers allow.
    void checkpoint();

    // Statements and transactions

    /// Steps once, waiting while the database is busy or locked; the last SQLite result.
    int executeSQLStmt(sqlite3_stmt* statement);
    /// Begins a transaction and owns the right to write from its start. Not nested. Throws without a log line.
    bool beginTransaction();
    bool commitTransaction();   ///< throws without a log line
    bool rollbackTransaction(); ///< throws without a log line
    /// False also after SQLite rolled back on its own.
    bool isInTransaction() const;
    /// Rolls back what is open, if anything is. When that fails, for want of memory, it is tried again before the next
    /// statement of any kind, which fails as long as it does: nothing can get into what was given up.
    void abandonTransaction();

    // Paths

    /// The number of elements less one; -1 for a path without any.
    int getPathElementCount(std::string path);
    /// What follows the last slash.
    std::string getLastElementOfPathFromFullPath(std::string path);

    // Folders

    /// Fills `f` from the live row at its path; false when there is none.
    bool folderExists(DBFolder& f);
    /// As folderExists(), deleted rows too; fills ids, path and name only, and `is_deleted` with false.
    bool folderRowExists(DBFolder& f);
    /// The path itself when a live root folder has it, else empty.
    std::string findRootFolder(std::string path);
    /// Fills `f` from the live row with its id; false when there is none.
    bool findFolderByFolderId(DBFolder& f);
    /// The live child folders of `f`, by its id.
    std::list<DBFolder> getFolderListByFolder(DBFolder& f);
    /// The ids of the live child folders.
    std::vector<int> getListOfFolders(int parentId);
    /// Writes both times of the row with the id of `f`.
    bool updateFolder(DBFolder& f);
    /// Marks the one row deleted.
    bool deleteFolderRecord(int folderId);
    /// Removes rows marked deleted and last written more than `threshold` seconds ago.
    int purgeDeletedFolders(int threshold);
    /// Inserts one row, or brings the row at that path back to life with the times and the parent of `f`; its id.
    /// A new row's id is not put into `f`.
    int insertIndividualFolder(DBFolder& f);
    /// Inserts the folder and missing folders above it; false when a live row is already there (then `f` holds it).
    /// On return `f` does NOT hold the new row's id: look it up again to get it.
    bool insertFolder(DBFolder& f, bool isRoot);
    /// Takes the top path off the stack and looks it up: the id of its live row, or -1. An empty stack stands for the
    /// empty path, which is the root row of a volume without crawl paths.
    int findParentIdForFolderPath(std::stack<std::string>* paths);
    /// Marks the folder at the path of `f`, everything below it and all their files deleted; false when not live. The
    /// caller's transaction makes that one piece; a stop may end it half-way with a DBOperationException.
    bool deleteFolder(DBFolder& f);
    /// Hangs live folders whose parent is not live on nothing, where the walk of a whole volume finds them, and marks
    /// live files of no live folder deleted, but for those filed under 0, which their folder's walk finds. A kill of an
    /// earlier release could leave such rows, and nothing else would ever look at them again. In a transaction of its
    /// own. False, with nothing done and nothing said, when that fails.
    bool releaseOrphans();
    /// Marks everything below the folder deleted: for each child its files, itself, then its own children.
    void updateDeletedFlagForFolders(int folderId);

    // Files

    /// Fills `f` from the live row with its path and name; false when there is none. The size comes back cut to 32
    /// bits.
    bool fileExists(DBFile& f);
    /// As fileExists(), deleted rows too; fills ids, path and name only.
    bool fileRowExists(DBFile& f);
    /// Inserts the file, or brings its deleted row back to life; false when a live row is already there. A missing
    /// folder is inserted first, and the file is then filed under the id that insertFolder() leaves.
    bool insertFile(DBFile& f);
    /// Writes name, category, size and times of the row with the id of `f`.
    bool updateFile(DBFile& f);
    /// Marks the row with the id of `f` deleted, after a line on standard output.
    bool deleteFile(DBFile& f);
    /// Marks every file of the folder deleted.
    bool deleteFilesFromFolder(int folderId);
    /// The live files of the folder, by its id; without their ids.
    std::list<DBFile> getFileListByFolder(DBFolder& d);
    std::list<SimpleDBFile> getSimpleFileListByFolder(DBFolder& d);
    /// Removes rows marked deleted and last written more than `threshold` seconds ago.
    int purgeDeletedFiles(int threshold);

    // Moves: new rows for the new place, the old rows marked deleted

    /// Follows a file that was moved. `src`: old path and name; `dst`: new path, name and category, filled with the
    /// rest. False, with nothing done, when the old folder or file is not live or the new file is.
    bool moveFile(DBFile& src, DBFile& dst);
    /// Follows a folder that was moved, with everything below it. `src` is the old folder as folderExists() filled it,
    /// `dst` has the new path. False, with nothing done, when that is live already or inside `src`. Opens no
    /// transaction: the caller's makes the move one piece.
    bool moveFolder(DBFolder& src, DBFolder& dst);

    // Rows rewritten in place, for programs that embed the catalogue

    /// Writes path, name, folder and times of the row with the id of `f`.
    bool updateFilePath(DBFile& f);
    bool updateFolderName(int folderId, std::string name);
    /// Writes the path alone, not the name.
    bool updatePathAndNameForFolderByFolderById(std::string path, int folderId);
    /// Writes `path` as the path of every file of the folder.
    bool updateFilesInFolderPath(int folderId, std::string path);
    /// Replaces the element at position `level`, counted from 0, of the folder's path, and gives its files that path.
    void updatePathForIndividualFolder(int folderId, int level, std::string element);
    /// Does that to everything below the folder, each child before its own children.
    void updatePathAndNameForFolders(int folderId, int level, std::string element);

private:
    friend class Transaction; // works on the connection

    void closeCatalogue();
    void forEachFolderBelow(int folderId, const std::function<void(int)>& visit);
    void moveContent(DBFolder& from, DBFolder& src, DBFolder& dst);

    const std::unique_ptr<CatalogueConnection> connection;
    const std::unique_ptr<WriteAheadLog> writeAheadLog; ///< of that connection
};
