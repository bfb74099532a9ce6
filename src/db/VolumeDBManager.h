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
class StopRequest;
class WriteAheadLog;

/// The catalogue of one volume: an SQLite file with a table of folders and one of files.
///
/// The object takes no lock, and only one call may be made at a time. Its volume manager opens and deletes it while no
/// other thread knows it; every call in between is made with the volume's lock held. requestStop() is for any thread.
///
/// When SQLite fails, an operation on rows logs that and throws DBOperationException. While another program keeps the
/// database busy, it waits, a second at a time. After requestStop() a wait or a long statement ends with that exception
/// and without a log line. An operation on rows also throws it before open().
///
/// Paths are volume-relative. Times are seconds since the epoch. Rows are marked deleted, and only the purge removes
/// them.
class VolumeDBManager {
public:
    VolumeDBManager();
    /// One that heeds the given request to stop, which outlives it, as requestStop() of its own.
    explicit VolumeDBManager(StopRequest& stopRequest);
    virtual ~VolumeDBManager(); ///< closes the catalogue and leaves a plain single file unless a reader prevents that
    VolumeDBManager(const VolumeDBManager&) = delete;
    VolumeDBManager& operator=(const VolumeDBManager&) = delete;

    // The catalogue file

    /// Closes the catalogue that was open. Opens the one at `path`, or makes it when there is none, with the
    /// directories above it. Returns true, or logs and throws DBOperationException. The content of an existing file is
    /// not checked, with one exception: root takes over another user's file, and refuses it when it holds more than the
    /// tables and indexes made here. What is no regular file with one name is refused. So is another user's file when
    /// the daemon does not run as root.
    bool open(const char* path);
    /// Whether there is something at `path`. When there is not, makes the directories above it.
    bool checkIfDBExists(const char* path);
    /// Makes every missing directory above `path`, never the last element. True when `path` is a directory, false in
    /// all other cases.
    bool createPath(const char* path);
    /// Runs the schema statements on an empty catalogue. Always returns false. Logs and throws DBOperationException
    /// when the last one fails.
    bool createDBStructure();
    /// From now on busy waits and long statements end with a failure, so that the daemon can stop. Never taken back.
    /// Any thread, without the lock.
    void requestStop();
    /// Goes to write-ahead logging unless that is in use. The file stays as it is while another program prevents it,
    /// when the volume is almost full, and when the file system cannot map files for sharing. Failures are not
    /// reported.
    void useWriteAheadLog();
    /// Gives the catalogue's files back to root when another user has become their owner. Only as root.
    void keepFiles();
    /// Copies the content of the write-ahead log into the main file, as far as readers allow. Failures are not
    /// reported.
    void checkpoint();

    // Statements and transactions

    /// Steps once, and again each second while the database is busy or locked and no stop is requested. Returns the
    /// last SQLite result.
    int executeSQLStmt(sqlite3_stmt* statement);

    // These three return true, or throw DBOperationException without a log line. Transactions are not nested.

    /// Begins a transaction. It has the database's write lock from its start, where the file can be written at all.
    bool beginTransaction();
    bool commitTransaction();
    bool rollbackTransaction();

    /// Whether a transaction is open. False also when SQLite has rolled it back on its own.
    bool isInTransaction() const;
    /// Rolls back the open transaction, if there is one. When that fails, for lack of memory, it is tried again before
    /// each later statement, which fails until it succeeds. So nothing is added to the abandoned transaction.
    void abandonTransaction();

    // Paths

    /// The number of elements minus one; -1 for a path without elements.
    int getPathElementCount(std::string path);
    /// What follows the last slash; the whole path when it has none.
    std::string getLastElementOfPathFromFullPath(std::string path);

    // Folders

    /// Fills `f` from the live row at its path; false when there is none.
    bool folderExists(DBFolder& f);
    /// As folderExists(), but also finds deleted rows. Fills ids, path and name only, and sets `is_deleted` to false.
    bool folderRowExists(DBFolder& f);
    /// The path itself when a live root folder has it, else empty.
    std::string findRootFolder(std::string path);
    /// Fills `f` from the live row with its id; false when there is none.
    bool findFolderByFolderId(DBFolder& f);
    /// The live child folders of `f`, by its id.
    std::list<DBFolder> getFolderListByFolder(DBFolder& f);
    /// The ids of the live child folders.
    std::vector<int> getListOfFolders(int parentId);
    /// Writes both times of the row with the id of `f`. Returns true.
    bool updateFolder(DBFolder& f);
    /// Marks this one row deleted. Returns true.
    bool deleteFolderRecord(int folderId);
    /// Removes rows that are marked deleted and were last written more than `threshold` seconds ago. Returns 0.
    int purgeDeletedFolders(int threshold);
    /// Inserts one row, or revives the row at that path with the times and the parent of `f`. Returns the row's id. A
    /// new row's id is not put into `f`.
    int insertIndividualFolder(DBFolder& f);
    /// Inserts the folder and missing folders above it. False when a live row is already there; `f` then holds that
    /// row. Of two missing folders in a row, the upper one is passed over and the lower one gets the parent_id -1. On
    /// return `f` does NOT hold the new row's id: look the folder up again to get it.
    bool insertFolder(DBFolder& f, bool isRoot);
    /// Takes the top path off the stack and looks it up. Returns the id of its live row, or -1 when there is none. An
    /// empty stack stands for the empty path, which is the root row of a volume without crawl paths.
    int findParentIdForFolderPath(std::stack<std::string>* paths);
    /// Marks the folder at the path of `f` deleted, with everything below it and all their files. False when the folder
    /// has no live row. The caller opens a transaction around it: a stop may end it half-way with a
    /// DBOperationException.
    bool deleteFolder(DBFolder& f);
    /// Gives live folders without a live parent the parent_id -1, so that the walk of a whole volume finds them. Marks
    /// live files without a live folder deleted, except those filed under 0, where insertFile() may put them. A kill of
    /// an earlier release could leave such rows, and nothing else would ever look at them. Uses a transaction of its
    /// own. False when that fails: nothing is done or logged then.
    bool releaseOrphans();
    /// Marks everything below the folder deleted: for each child its files, the child itself, then its own children. A
    /// stop may end it half-way with a DBOperationException.
    void updateDeletedFlagForFolders(int folderId);

    // Files

    /// Fills `f` from the live row with its path and name; false when there is none. The size is cut to its low 32
    /// bits.
    bool fileExists(DBFile& f);
    /// As fileExists(), but also finds deleted rows. Fills ids, path and name only.
    bool fileRowExists(DBFile& f);
    /// Inserts the file, or revives its deleted row. False when a live row is already there. A missing folder is
    /// inserted first. The file is then filed under the id that insertFolder() leaves, which is not the new folder's,
    /// and stays so.
    bool insertFile(DBFile& f);
    /// Writes name, category, size and times of the row with the id of `f`. Returns true.
    bool updateFile(DBFile& f);
    /// Prints a line on standard output and marks the row with the id of `f` deleted. Returns true.
    bool deleteFile(DBFile& f);
    /// Marks every file of the folder deleted. Returns true.
    bool deleteFilesFromFolder(int folderId);
    /// The live files of the folder with the id of `d`. Their ids are not filled in.
    std::list<DBFile> getFileListByFolder(DBFolder& d);
    std::list<SimpleDBFile> getSimpleFileListByFolder(DBFolder& d);
    /// Removes rows that are marked deleted and were last written more than `threshold` seconds ago. Returns 0.
    int purgeDeletedFiles(int threshold);

    // Moves. They make new rows for the new place, mark the old rows deleted, and open no transaction: with one of the
    // caller's, a move is done as a whole or not at all.

    /// Follows a file that was moved. `src` has the old path and name; `dst` has the new path, name and category, and
    /// is filled with the rest. False, with nothing done, when the old folder or the old file has no live row, or the
    /// new file has one.
    bool moveFile(DBFile& src, DBFile& dst);
    /// Follows a folder that was moved, with everything below it. `src` is the old folder as folderExists() filled it;
    /// `dst` has the new path. False, with nothing done, when the new path has a live row or is inside `src`. A stop
    /// may end it half-way with a DBOperationException.
    bool moveFolder(DBFolder& src, DBFolder& dst);

    // Rows rewritten in place, for programs that embed the catalogue. The first four return true.

    /// Writes path, name, folder and times of the row with the id of `f`.
    bool updateFilePath(DBFile& f);
    /// Writes the name alone, not the path.
    bool updateFolderName(int folderId, std::string name);
    /// Writes the path alone, not the name.
    bool updatePathAndNameForFolderByFolderById(std::string path, int folderId);
    /// Writes `path` as the path of every file of the folder.
    bool updateFilesInFolderPath(int folderId, std::string path);
    /// Replaces the element at position `level`, counted from 0, of the folder's path. The path of each of its files
    /// becomes that folder path.
    void updatePathForIndividualFolder(int folderId, int level, std::string element);
    /// Does the same to every folder below this one, each child before its own children, but not to this one.
    void updatePathAndNameForFolders(int folderId, int level, std::string element);

private:
    friend class Transaction; // uses the connection

    explicit VolumeDBManager(std::unique_ptr<CatalogueConnection> newConnection);
    void closeCatalogue();
    void forEachFolderBelow(int folderId, const std::function<void(int)>& visit);
    void moveContent(DBFolder& from, DBFolder& src, DBFolder& dst);

    const std::unique_ptr<CatalogueConnection> connection;
    const std::unique_ptr<WriteAheadLog> writeAheadLog; ///< of that connection
};
