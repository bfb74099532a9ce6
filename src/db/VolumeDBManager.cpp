#include "db/VolumeDBManager.h"

#include "classify/Tokenizer.h"
#include "core/SignalMask.h"
#include "core/WithoutLinks.h"
#include "db/CatalogueAdmission.h"
#include "db/CatalogueFile.h"
#include "db/DBOperationException.h"
#include "db/Statement.h"
#include "db/Transaction.h"

#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <memory>
#include <new>
#include <queue>
#include <set>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <utility>

namespace {

/// A schema of this system's readers: texts, order and names are relied on as they are.
const char* const schemaStatements[] = {
    "create table Folders(folder_id integer primary key AUTOINCREMENT, parent_id integer not null, path text not null , name text not null, category int default(-1) not null, created_time int not null, modified_time int not null, is_deleted boolean not null, is_backup boolean default(0) not null, is_hidden boolean default(0) not null, is_system boolean default(0) not null, last_updated_time int not null)",
    // The blank at the end is part of the text that sqlite_master keeps.
    "create table Files(file_id integer primary key AUTOINCREMENT, folder_id integer not null, path text not null, name text not null, category int not null, size int not null, modified_time int not null, created_time int not null, is_deleted boolean not null, is_backup boolean default(0) not null, is_hidden boolean default(0) not null, is_system boolean default(0) not null, last_updated_time int not null, FOREIGN KEY(folder_id) REFERENCES Folders(folder_id) ON DELETE CASCADE) ",
    "create index Files_path on Files(path)",
    "create index Files_last_updated_time on Files(last_updated_time)",
    "create index Files_folder_id on Files(folder_id)",
    "create index Files_name on Files(name)",
    "create index if not exists Files_path_pame on Files(path, name)", // "pame": catalogues in the field have this name
    "create index Folders_path on Folders(path)",
    "create index Folders_last_updated_time on Folders(last_updated_time)",
    "create index Folders_parent_id on Folders(parent_id)",
    "create index Folders_name on Folders(name)",
};

constexpr std::string::size_type longestForSqlite = 512 - std::string_view("-journal").length();
constexpr int checkpointPages = 4000; // few syncs in a long walk, and a log of at most some 16 MiB
constexpr unsigned long smallestIndexBytes = 32768;
constexpr unsigned long roomForLogBytes = 1048576; // its index and some transactions
constexpr unsigned long logFiles = 2;              // the log and its index
constexpr int stepsBetweenStopChecks = 100000;     // virtual machine steps, well under a second of work
constexpr int stepsToReadSchema = 2000;            // ten times what that of a catalogue takes

/// What a catalogue needs, with room for an administrator's triggers: a file that somebody has prepared is not to make
/// the daemon build values of gigabytes.
constexpr struct {
    int category;
    int value;
} sqlLimits[] = {
    { SQLITE_LIMIT_LENGTH, 1000000 }, // of a row, too: its two paths have 8 KiB at the most
    { SQLITE_LIMIT_SQL_LENGTH, 100000 },
    { SQLITE_LIMIT_ATTACHED, 0 },
    { SQLITE_LIMIT_TRIGGER_DEPTH, 10 },
};

bool succeeded(int status) { return status == SQLITE_OK || status == SQLITE_DONE; }

std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

/// Whether SQLite takes the path for that of a file. It makes databases of its own of some others, in memory or
/// nowhere.
bool isFilePath(const std::string& path)
{
    return !path.empty() && path != ":memory:" && path.compare(0, 5, "file:") != 0;
}

/// The texts in a schema, as SQLite keeps them. An SQLite status.
int readSchemaTexts(sqlite3* schema, std::set<std::string>& texts)
{
    return sqlite3_exec(
        schema, "select sql from sqlite_master where sql is not null",
        [](void* result, int, char** text, char**) {
            try {
                static_cast<std::set<std::string>*>(result)->insert(text[0]);
                return 0;
            } catch (const std::bad_alloc&) {
                return 1;
            }
        },
        &texts, nullptr);
}

int isHidden(const std::string& path) { return path.find("/.") != std::string::npos ? 1 : 0; }

/// The path of something below `from` as it is below `to`. What is replaced begins at the first character that occurs
/// in `from` at all and is as long as `from`; since both begin with a slash, that is the beginning.
std::string movedPath(std::string path, const std::string& from, const std::string& to)
{
    const std::string::size_type start = path.find_first_of(from);
    return start == std::string::npos ? path : path.replace(start, from.length(), to);
}

int purgeCutoff(int threshold)
{
    const auto now = static_cast<unsigned>(std::time(nullptr));
    return static_cast<int>(now - static_cast<unsigned>(threshold)); // wraps in 32 bits, as the stored times do
}

/// The folder select list, in its order.
void readFolderRow(const Statement& row, DBFolder& f)
{
    f.setFolder_id(row.columnInt(0));
    f.setParent_id(row.columnInt(1));
    f.setPath(row.columnText(2));
    f.setIs_deleted(row.columnInt(3) != 0);
    f.setLast_updated_time(row.columnInt(4));
    f.setModified_time(row.columnInt(5));
    f.setCreated_time(row.columnInt(6));
    f.setName(row.columnText(7));
}

} // namespace

VolumeDBManager::VolumeDBManager() = default;

VolumeDBManager::~VolumeDBManager()
{
    closeCatalogue();
    syslog(LOG_LOCAL5 | LOG_INFO, "sqlite3 handle closed\n");
}

// The catalogue file

bool VolumeDBManager::open(const char* path)
{
    syslog(LOG_LOCAL5 | LOG_INFO, "sqlite version: %s\n", sqlite3_libversion());
    closeCatalogue();
    const int rc = openOrMake(path);
    if (!succeeded(rc)) {
        sqlite3_close(std::exchange(handle, nullptr)); // SQLite hands out a handle also when it fails
        syslog(LOG_LOCAL5 | LOG_ERR, "open() failed, handleStatus: %d\n", rc);
        throw DBOperationException();
    }
    configure();
    catalogue = identityOf(sqlite3_db_filename(handle, "main"));
    logIsUnusable = false;
    useWriteAheadLog();
    return true;
}

void VolumeDBManager::closeCatalogue()
{
    try {
        if (handle != nullptr)
            leaveWriteAheadLog();
    } catch (const std::exception&) {
        // SQLite puts its log into the file all the same; at the worst the next start does.
    }
    sqlite3_close(std::exchange(handle, nullptr));
    catalogue = FileIdentity();
    log = FileIdentity();
}

/// An SQLite status.
int VolumeDBManager::openOrMake(const std::string& path)
{
    if (!isFilePath(path))
        return SQLITE_CANTOPEN;
    const bool existed = checkIfDBExists(path.c_str());
    const std::string found = resolveOwnLinks(path, LinkedFile::followed);
    if (found.empty() || found.length() > longestForSqlite || path.length() > longestForSqlite)
        return SQLITE_CANTOPEN;
    const bool isMarked = avoidCopyOnWrite(found);
    const int rc = existed ? SQLITE_OK : make(found);
    return rc == SQLITE_OK ? openAdmitted(found, isMarked) : rc;
}

/// Opens the catalogue if it is one that may be opened. An SQLite status.
int VolumeDBManager::openAdmitted(const std::string& path, bool isMarked)
{
    const CatalogueAdmission admission(path);
    if (admission.isRefused())
        return SQLITE_CANTOPEN;
    if (isMarked)
        avoidCopyOnWriteOfIndex(path);
    const int rc = sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW, nullptr);
    if (rc != SQLITE_OK)
        return rc;
    for (const auto& limit : sqlLimits)
        sqlite3_limit(handle, limit.category, limit.value);
    if (admission.isTrusted())
        return SQLITE_OK;
    const int harmless = lookForForeignSql();
    if (harmless == SQLITE_OK)
        admission.trust();
    return harmless;
}

/// SQLITE_AUTH when the schema holds anything that is not made here: triggers and views run with the daemon's
/// statements, so do the checks, defaults and indexes of a table, and plans follow what a user says of the rows.
/// By the texts alone, since these are what SQLite parses.
int VolumeDBManager::lookForForeignSql()
{
    // A schema may have any size, and is read as a whole.
    sqlite3_progress_handler(
        handle, stepsToReadSchema, [](void*) { return 1; }, nullptr);
    std::set<std::string> texts;
    const int rc = readSchemaTexts(handle, texts);
    if (rc != SQLITE_OK)
        return rc == SQLITE_INTERRUPT ? SQLITE_AUTH : rc;

    sqlite3* made = nullptr;
    std::set<std::string> ours;
    sqlite3_open(":memory:", &made);
    for (const char* statement : schemaStatements)
        sqlite3_exec(made, statement, nullptr, nullptr, nullptr);
    readSchemaTexts(made, ours);
    sqlite3_close(made);
    return std::includes(ours.begin(), ours.end(), texts.begin(), texts.end()) ? SQLITE_OK : SQLITE_AUTH;
}

/// Makes a new catalogue, complete or absent: a schema is only ever made for a new file, so half of one would never be
/// completed. It comes to be in memory, where no other program sees it.
int VolumeDBManager::make(const std::string& path)
{
    // What cannot be looked at may be a good catalogue on a disk with a fault. An empty one must not replace it.
    struct stat64 status;
    if (stat64(path.c_str(), &status) == 0 || errno != ENOENT)
        return SQLITE_CANTOPEN;
    const std::string content = emptyCatalogue();
    if (content.empty())
        return SQLITE_NOMEM;
    const int rc = createCatalogueFile(path, content);
    if (rc != SQLITE_FULL)
        return rc;
    syslog(LOG_LOCAL5 | LOG_ERR, "createDBStructure() failed, handleStatus: %d\n", rc);
    throw DBOperationException();
}

/// The bytes of a catalogue without rows; none when memory was missing on the way.
std::string VolumeDBManager::emptyCatalogue()
{
    struct Closing {
        sqlite3*& opened;
        ~Closing() { sqlite3_close(std::exchange(opened, nullptr)); }
    } const closing { handle };
    if (sqlite3_open(":memory:", &handle) != SQLITE_OK)
        return {};
    createDBStructure();
    int objects = 0;
    sqlite3_exec(
        handle, "select 1 from sqlite_master where name not like 'sqlite_%'",
        [](void* count, int, char**, char**) { return ++*static_cast<int*>(count), 0; }, &objects, nullptr);
    if (objects != static_cast<int>(std::size(schemaStatements)))
        return {}; // the failures of all statements but the last one are ignored
    sqlite3_int64 size = 0;
    const std::unique_ptr<unsigned char, void (*)(void*)> bytes(
        sqlite3_serialize(handle, "main", &size, 0), sqlite3_free);
    return bytes == nullptr ? std::string()
                            : std::string(reinterpret_cast<const char*>(bytes.get()), static_cast<std::size_t>(size));
}

bool VolumeDBManager::checkIfDBExists(const char* path)
{
    struct stat64 status;
    if (stat64(path, &status) == 0)
        return true;
    createPath(path);
    return false;
}

bool VolumeDBManager::createPath(const char* path)
{
    const auto isDirectory = [](const char* candidate) {
        DIR* directory = opendir(candidate);
        return directory != nullptr && closedir(directory) == 0;
    };
    if (isDirectory(path))
        return true;
    const std::string whole = path;
    for (std::string::size_type slash = whole.find('/', 1); slash != std::string::npos;
         slash = whole.find('/', slash + 1)) {
        const std::string prefix = whole.substr(0, slash);
        if (!isDirectory(prefix.c_str()) && errno == ENOENT)
            mkdir(prefix.c_str(), 0755); // what fails here shows when the catalogue is opened
    }
    return false;
}

bool VolumeDBManager::createDBStructure()
{
    syslog(LOG_LOCAL5 | LOG_INFO, "Generating schema");
    int rc = SQLITE_OK;
    for (const char* statement : schemaStatements)
        rc = sqlite3_exec(handle, statement, nullptr, nullptr, nullptr);
    // Only the last one counts, on purpose: tables that are there already are no reason to refuse a catalogue.
    if (!succeeded(rc)) {
        syslog(LOG_LOCAL5 | LOG_ERR, "createDBStructure() failed, handleStatus: %d\n", rc);
        throw DBOperationException();
    }
    return false;
}

void VolumeDBManager::requestStop() { stopRequested = true; }

bool VolumeDBManager::isStopping() const { return stopRequested || isStopSignalPending(); }

void VolumeDBManager::configure()
{
    // A file can ask for a page cache of any size.
    sqlite3_exec(handle, "PRAGMA cache_size=-2000", nullptr, nullptr, nullptr);
    sqlite3_wal_autocheckpoint(handle, checkpointPages);
    // A purge of a million rows is one statement; the daemon has to be able to stop in the middle of it.
    sqlite3_progress_handler(
        handle, stepsBetweenStopChecks,
        [](void* self) { return static_cast<VolumeDBManager*>(self)->isStopping() ? 1 : 0; }, this);
}

/// A file that is foreign, locked, read-only or no database at all is used as far as it goes.
void VolumeDBManager::useWriteAheadLog()
{
    if (log.inode != 0)
        return; // in use; as long as this connection is there nobody can change that
    if (handle == nullptr || logIsUnusable)
        return;
    if (hasMoved())
        return; // the log is found by name: it would be that of the other catalogue
    // The first look: it brings back, with full syncs, what a kill has left half done. No answer: somebody is in the
    // way.
    std::string mode = journalModeAfter("PRAGMA journal_mode");
    if (mode == "memory" || mode == "off") // left by a try that failed half-way: a kill could damage the catalogue
        mode = journalModeAfter("PRAGMA journal_mode=DELETE");
    bool inUse
        = mode == "wal" || (mode == "delete" && hasRoomForLog() && hasDescriptorsForLog() && enterWriteAheadLog());
    // This one, for whatever value, makes the log and its index.
    if (inUse)
        sqlite3_exec(handle, "PRAGMA schema_version", nullptr, nullptr, nullptr);
    const int status = sqlite3_extended_errcode(handle);
    if (status == SQLITE_IOERR_SHMMAP || status == SQLITE_IOERR_SHMSIZE) {
        takeBackWriteAheadLog();
        inUse = false;
    }
    // Without a log a power cut is survived by full syncs.
    sqlite3_exec(handle, inUse ? "PRAGMA synchronous=NORMAL" : "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr);
    if (inUse)
        rememberLog();
}

/// The journal mode that a PRAGMA answers with; empty when it fails.
std::string VolumeDBManager::journalModeAfter(const char* pragma)
{
    std::string mode;
    sqlite3_exec(
        handle, pragma,
        [](void* result, int, char** value, char**) {
            *static_cast<std::string*>(result) = value[0] != nullptr ? value[0] : "";
            return 0;
        },
        &mode, nullptr);
    return mode;
}

/// A kill between the switch of the file and the making of the log leaves a catalogue that readers without write
/// permission cannot open. So the switch, which is one write to the first page, goes without a journal and without
/// syncs: they would take most of that time, and neither order of the two writes is wrong after a power cut.
bool VolumeDBManager::enterWriteAheadLog()
{
    sqlite3_exec(handle, "PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY", nullptr, nullptr, nullptr);
    const bool inUse = journalModeAfter("PRAGMA journal_mode=WAL") == "wal";
    if (!inUse)
        sqlite3_exec(handle, "PRAGMA journal_mode=DELETE", nullptr, nullptr, nullptr);
    return inUse;
}

/// Where files cannot be mapped for sharing (some network and user-space file systems), nobody could read the
/// catalogue. A connection that has it for itself from its beginning needs no mapping. While another program uses the
/// catalogue it stays as it is until the next try.
void VolumeDBManager::takeBackWriteAheadLog()
{
    const std::string path = sqlite3_db_filename(handle, "main");
    sqlite3_close(std::exchange(handle, nullptr));
    if (openAdmitted(path, false) != SQLITE_OK || hasMoved()) {
        sqlite3_close(std::exchange(handle, nullptr)); // operations fail as before open()
        return;
    }
    sqlite3_exec(handle, "PRAGMA locking_mode=EXCLUSIVE", nullptr, nullptr, nullptr);
    if (journalModeAfter("PRAGMA journal_mode=DELETE") == "delete") {
        logIsUnusable = !canMapIndex(path);
        unlinkWithoutLinks((path + "-shm").c_str());
    }
    // The look ends the exclusive lock.
    sqlite3_exec(handle, "PRAGMA locking_mode=NORMAL; PRAGMA schema_version", nullptr, nullptr, nullptr);
    configure();
}

/// A file that has been switched to a log which then finds no room for its index cannot even be read.
bool VolumeDBManager::hasRoomForLog() const
{
    struct rlimit64 fileSize;
    if (getrlimit64(RLIMIT_FSIZE, &fileSize) == 0 && fileSize.rlim_cur < smallestIndexBytes)
        return false;
    struct statvfs64 volume;
    const char* path = sqlite3_db_filename(handle, "main");
    if (path == nullptr || statvfs64(path, &volume) != 0)
        return true;
    const bool countsInodes = volume.f_files != 0; // where they are made as needed there is nothing to count
    return volume.f_bavail * volume.f_frsize >= roomForLogBytes && (!countsInodes || volume.f_favail >= logFiles);
}

/// For the log, its index and one to spare. A file that has been switched to a log whose index then cannot be opened is
/// likewise lost to readers.
bool VolumeDBManager::hasDescriptorsForLog()
{
    int taken[3];
    for (int& descriptor : taken)
        descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    bool enough = true;
    for (const int descriptor : taken)
        enough = descriptor >= 0 && ::close(descriptor) == 0 && enough;
    return enough;
}

/// Something else, or nothing, is in the place of the file that is open: another volume, a catalogue from a backup.
bool VolumeDBManager::hasMoved() const
{
    return catalogue.inode != 0 && !isAt(catalogue, sqlite3_db_filename(handle, "main")); // inode 0: none is open
}

void VolumeDBManager::keepFiles()
{
    if (handle != nullptr && !hasMoved())
        keepCatalogue(sqlite3_db_filename(handle, "main"));
}

std::string VolumeDBManager::logPath() const { return std::string(sqlite3_db_filename(handle, "main")) + "-wal"; }

void VolumeDBManager::rememberLog()
{
    if (!hasMoved())
        log = identityOf(logPath());
}

/// Our log beside somebody else's catalogue would be replayed into that.
void VolumeDBManager::removeOwnLog() const
{
    if (log.inode == 0 || !isAt(log, logPath()))
        return;
    unlinkWithoutLinks(logPath().c_str());
    unlinkWithoutLinks((std::string(sqlite3_db_filename(handle, "main")) + "-shm").c_str());
}

VolumeDBManager::FileIdentity VolumeDBManager::identityOf(const std::string& path)
{
    struct stat64 status;
    return stat64(path.c_str(), &status) == 0 ? FileIdentity { status.st_dev, status.st_ino } : FileIdentity {};
}

/// Not SQLite's own look, which compares the inode alone: two disks that were set up alike have the same ones.
bool VolumeDBManager::isAt(const FileIdentity& file, const std::string& path)
{
    const FileIdentity there = identityOf(path);
    return there.device == file.device && there.inode == file.inode;
}

/// Leaves one plain file that anybody can read from anywhere. With a reader in the way the log stays, files and all: a
/// reader that may not write can open a log that is there, but not make one.
void VolumeDBManager::leaveWriteAheadLog()
{
    endAbandonedTransaction();
    int keepLogFiles = 1;
    if (hasMoved()) { // SQLite would take away, by name, the log of the other catalogue
        sqlite3_file_control(handle, nullptr, SQLITE_FCNTL_PERSIST_WAL, &keepLogFiles);
        removeOwnLog();
        return;
    }
    keepLogFiles = 0;
    sqlite3_file_control(handle, nullptr, SQLITE_FCNTL_PERSIST_WAL, &keepLogFiles);
    // As in enterWriteAheadLog(), if the log is in the file and on the disk by now: then nothing else needs a sync.
    int logPages = -1;
    int copiedPages = 0;
    const bool isCopied
        = sqlite3_wal_checkpoint_v2(handle, nullptr, SQLITE_CHECKPOINT_PASSIVE, &logPages, &copiedPages) == SQLITE_OK
        && logPages == copiedPages;
    const int rc = sqlite3_exec(handle,
        isCopied ? "PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY" : "PRAGMA journal_mode=DELETE", nullptr,
        nullptr, nullptr);
    keepLogFiles = rc == SQLITE_OK ? 0 : 1;
    sqlite3_file_control(handle, nullptr, SQLITE_FCNTL_PERSIST_WAL, &keepLogFiles);
}

void VolumeDBManager::checkpoint()
{
    if (handle == nullptr)
        return;
    endAbandonedTransaction();
    sqlite3_wal_checkpoint_v2(handle, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
}

// Statements and transactions

/// nullptr when the statement cannot be prepared; binding or stepping it then fails. Reading the schema can meet a
/// busy database just as a step can.
sqlite3_stmt* VolumeDBManager::prepare(const char* text)
{
    if (!endAbandonedTransaction())
        return nullptr;
    sqlite3_stmt* statement = nullptr;
    int rc;
    do {
        rc = sqlite3_prepare(handle, text, -1, &statement, nullptr);
    } while ((rc == SQLITE_BUSY || rc == SQLITE_LOCKED) && waitForNeighbour());
    return statement;
}

int VolumeDBManager::executeSQLStmt(sqlite3_stmt* statement)
{
    int rc;
    do {
        rc = sqlite3_step(statement);
    } while ((rc == SQLITE_BUSY || rc == SQLITE_LOCKED) && waitForNeighbour());
    return rc;
}

/// Waits one second; false, at once, when the daemon is about to stop: nobody then waits for a neighbour any longer.
bool VolumeDBManager::waitForNeighbour() const
{
    using namespace std::chrono_literals;
    for (int slice = 0; slice < 10; ++slice) {
        if (isStopping())
            return false;
        std::this_thread::sleep_for(100ms);
    }
    return true;
}

bool VolumeDBManager::beginTransaction()
{
    runTransactionStatement("BEGIN");
    takeWriteLock();
    return true;
}

bool VolumeDBManager::commitTransaction() { return runTransactionStatement("COMMIT"); }

bool VolumeDBManager::rollbackTransaction() { return runTransactionStatement("ROLLBACK"); }

bool VolumeDBManager::isInTransaction() const { return handle != nullptr && sqlite3_get_autocommit(handle) == 0; }

void VolumeDBManager::abandonTransaction()
{
    try {
        if (isInTransaction())
            rollbackTransaction();
    } catch (const DBOperationException&) {
        abandoned = true;
    }
}

/// False when it could not be rolled back this time either.
bool VolumeDBManager::endAbandonedTransaction()
{
    if (std::exchange(abandoned, false))
        abandonTransaction();
    return !abandoned;
}

bool VolumeDBManager::runTransactionStatement(const char* text)
{
    sqlite3_stmt* statement = prepare(text);
    const int rc = executeSQLStmt(statement);
    sqlite3_finalize(statement);
    if (!succeeded(rc))
        throw DBOperationException();
    return true;
}

/// A write that matches no row. A transaction that has read before another program commits can never write: every
/// later step would be busy for ever. One that owns the write lock from the start cannot be overtaken. It writes
/// nothing by itself, and where it fails (no such table, a read-only file) the first real statement says why.
void VolumeDBManager::takeWriteLock()
{
    sqlite3_stmt* statement = nullptr;
    int rc;
    do {
        // The one statement of the second kind: it notices a schema that somebody has changed, and reads it anew.
        rc = sqlite3_prepare_v2(handle, "delete from folders where 0", -1, &statement, nullptr);
        if (rc == SQLITE_OK)
            rc = sqlite3_step(statement);
        sqlite3_finalize(statement);
    } while ((rc == SQLITE_BUSY || rc == SQLITE_LOCKED) && waitForNeighbour());
}

// Paths

int VolumeDBManager::getPathElementCount(std::string path)
{
    Tokenizer elements(path, "/");
    int count = 0;
    while (!elements.next().empty())
        ++count;
    return count - 1;
}

std::string VolumeDBManager::getLastElementOfPathFromFullPath(std::string path)
{
    return path.substr(path.rfind('/') + 1); // without any slash: npos + 1 is 0, the whole path
}

// Folders

bool VolumeDBManager::folderExists(DBFolder& f)
{
    const std::string path = f.getPath();
    Statement stmt(*this,
        "select folder_id, parent_id, path, is_deleted, last_updated_time, modified_time, created_time, name from folders where path=? and is_deleted=0");
    stmt.bind(path);
    bool found = false;
    while (stmt.nextRow()) {
        readFolderRow(stmt, f);
        f.setIs_deleted(false);
        found = true;
    }
    stmt.check("folderExists() failed, handleStatus: %d\n");
    return found;
}

bool VolumeDBManager::folderRowExists(DBFolder& f)
{
    const std::string path = f.getPath();
    Statement stmt(*this,
        "select folder_id, parent_id, path, is_deleted, last_updated_time, modified_time, created_time, name from folders where path=?");
    stmt.bind(path);
    bool found = false;
    while (stmt.nextRow()) {
        f.setFolder_id(stmt.columnInt(0));
        f.setParent_id(stmt.columnInt(1));
        f.setPath(stmt.columnText(2));
        f.setName(stmt.columnText(7));
        f.setIs_deleted(false); // whatever the column holds: the callers are about to bring the row back to life
        found = true;
    }
    stmt.check("folderExists() failed, handleStatus: %d\n"); // the text of its sibling: log readers know no other
    return found;
}

std::string VolumeDBManager::findRootFolder(std::string path)
{
    Statement stmt(*this, "select path from  folders  where  path=?  and parent_id=-1  and is_deleted=0");
    stmt.bind(path);
    std::string root;
    while (stmt.nextRow())
        root = stmt.columnText(0);
    stmt.check("findRootFolder() failed, handleStatus: %d\n");
    return root;
}

bool VolumeDBManager::findFolderByFolderId(DBFolder& f)
{
    Statement stmt(*this,
        "select folder_id, parent_id, path, is_deleted, last_updated_time, modified_time, created_time, name from folders where folder_id=? and is_deleted=0");
    stmt.bind(f.getFolder_id());
    bool found = false;
    while (stmt.nextRow()) {
        readFolderRow(stmt, f);
        found = true;
    }
    stmt.check("findFolderByFolderId() failed, handleStatus: %d\n");
    return found;
}

std::list<DBFolder> VolumeDBManager::getFolderListByFolder(DBFolder& f)
{
    Statement stmt(*this,
        "select folder_id, parent_id, path, is_deleted, last_updated_time, modified_time, created_time, name from folders where parent_id=? and is_deleted=0");
    stmt.bind(f.getFolder_id());
    std::list<DBFolder> children;
    while (stmt.nextRow())
        readFolderRow(stmt, children.emplace_back());
    stmt.check("getFolderListByFolder() failed, handleStatus: %d\n");
    return children;
}

std::vector<int> VolumeDBManager::getListOfFolders(int parentId)
{
    Statement stmt(*this, "select a.folder_id from folders a where a.parent_id = ? and a.is_deleted = 0");
    stmt.bind(parentId);
    std::vector<int> ids;
    while (stmt.nextRow())
        ids.push_back(stmt.columnInt(0));
    stmt.check("getListOfFolders() failed, handleStatus: %d\n");
    return ids;
}

bool VolumeDBManager::updateFolder(DBFolder& f)
{
    Statement stmt(*this,
        "update folders set last_updated_time=strftime('%s','now'), modified_time=?, created_time=? where folder_id = ?");
    stmt.bind(f.getModified_time()).bind(f.getCreated_time()).bind(f.getFolder_id());
    stmt.run("updateFolder() failed, handleStatus: %d\n");
    return true;
}

bool VolumeDBManager::deleteFolderRecord(int folderId)
{
    Statement stmt(
        *this, "update folders set is_deleted = 1, last_updated_time=strftime('%s','now')  where folder_id = ?");
    stmt.bind(folderId);
    stmt.run("deleteFolderRecord() failed, handleStatus: %d\n");
    return true;
}

int VolumeDBManager::purgeDeletedFolders(int threshold)
{
    Statement stmt(*this, "delete from folders where is_deleted=1 and last_updated_time < ?");
    stmt.bind(purgeCutoff(threshold));
    stmt.run("purgeDeletedFolders() failed, handleStatus: %d\n");
    return stmt.finalize();
}

int VolumeDBManager::insertIndividualFolder(DBFolder& f)
{
    DBFolder row; // of its own: what the old row had as its parent must not replace what the caller asks for
    row.setPath(f.getPath());
    if (!folderRowExists(row)) {
        const std::string path = f.getPath();
        const std::string name = getLastElementOfPathFromFullPath(path);
        Statement stmt(*this,
            "insert into folders( parent_id  , path  , name  , is_deleted  , modified_time  , last_updated_time  , created_time  , is_hidden ) values(?,?,?,?,?,strftime('%s','now'),?,?)",
            Statement::lastDecides);
        stmt.bind(f.getParent_id()).bind(path).bind(name).bind(0).bind(f.getModified_time()).bind(f.getCreated_time());
        stmt.bind(isHidden(path));
        stmt.run("insertIndividualFolder() failed, handleStatus: %d\n");
        return static_cast<int>(sqlite3_last_insert_rowid(handle));
    }

    f.setFolder_id(row.getFolder_id());
    f.setName(row.getName());
    f.setIs_deleted(false);
    syslog(LOG_LOCAL5 | LOG_INFO, "Row for folder %s exists in the DB so updating it\n", f.getPath().c_str());
    Statement stmt(*this,
        "update folders   set is_deleted = 0, modified_time=?, last_updated_time=strftime('%s', 'now') , created_time=?, parent_id=?  where folder_id=?");
    stmt.bind(f.getModified_time()).bind(f.getCreated_time()).bind(f.getParent_id()).bind(f.getFolder_id());
    stmt.run("updateFolder() failed, handleStatus: %d\n"); // the text of updateFolder(): log readers know no other
    return f.getFolder_id();
}

bool VolumeDBManager::insertFolder(DBFolder& f, bool isRoot)
{
    if (folderExists(f))
        return false;
    if (isRoot) {
        f.setParent_id(-1);
        insertIndividualFolder(f);
        return true;
    }

    std::stack<std::string> paths; // every ancestor from the first element down, the folder itself on top
    std::string prefix;
    Tokenizer elements(f.getPath(), "/");
    for (std::string element = elements.next(); !element.empty(); element = elements.next()) {
        prefix += "/" + element;
        paths.push(prefix);
    }

    DBFolder work;
    while (!paths.empty()) {
        work.resetFolder();
        work.setPath(paths.top());
        paths.pop();
        if (!folderExists(work)) {
            // The look-up takes the parent's path off the stack too, so a missing parent is passed over and the folder
            // hangs on -1. Walks insert from the top down, where parents exist.
            work.setParent_id(findParentIdForFolderPath(&paths));
            if (work.getPath() == f.getPath()) {
                work.setModified_time(f.getModified_time());
                work.setCreated_time(f.getCreated_time());
            }
            insertIndividualFolder(work);
        } else if (work.getParent_id() == -1) {
            break;
        }
    }
    // What the climb ended with, on purpose, not the row just inserted: insertFile() files by it (see there).
    f.setFolder_id(work.getFolder_id());
    f.setParent_id(work.getParent_id());
    f.setName(work.getName());
    return true;
}

int VolumeDBManager::findParentIdForFolderPath(std::stack<std::string>* paths)
{
    DBFolder parent;
    if (!paths->empty()) {
        parent.setPath(paths->top());
        paths->pop();
    } // else the empty path: a top-level folder hangs on the volume's own row, and is found deleted through it
    return folderExists(parent) ? parent.getFolder_id() : -1;
}

bool VolumeDBManager::deleteFolder(DBFolder& f)
{
    if (!folderExists(f))
        return false;
    updateDeletedFlagForFolders(f.getFolder_id());
    deleteFolderRecord(f.getFolder_id());
    deleteFilesFromFolder(f.getFolder_id());
    return true;
}

bool VolumeDBManager::releaseOrphans()
{
    const std::string orphanedFolders
        = " where is_deleted=0 and parent_id<>-1 and not exists (select 1 from folders a where a.folder_id=folders.parent_id and a.is_deleted=0)";
    const std::string orphanedFiles
        = " where is_deleted=0 and folder_id in (select folder_id from files where folder_id<>0 except select folder_id from folders where is_deleted=0)";
    const auto run = [this](const std::string& text, bool* hasRow) {
        const auto noteRow = [](void* noted, int, char**, char**) { return *static_cast<bool*>(noted) = true, 0; };
        return sqlite3_exec(handle, text.c_str(), hasRow != nullptr ? +noteRow : nullptr, hasRow, nullptr) == SQLITE_OK;
    };
    bool found = false;
    if (!run("select 1 where exists (select 1 from folders" + orphanedFolders + ") or exists (select 1 from files"
                + orphanedFiles + ")",
            &found))
        return false;
    if (!found)
        return true;
    try {
        Transaction transaction(*this);
        if (!run("update folders set parent_id=-1, last_updated_time=strftime('%s','now')" + orphanedFolders, nullptr)
            || !run("update files set is_deleted=1, last_updated_time=strftime('%s','now')" + orphanedFiles, nullptr))
            return false;
        transaction.commit();
        return true;
    } catch (const DBOperationException&) {
        return false;
    }
}

void VolumeDBManager::updateDeletedFlagForFolders(int folderId)
{
    forEachFolderBelow(folderId, [this](int child) {
        if (isStopping())
            throw DBOperationException();
        deleteFilesFromFolder(child);
        deleteFolderRecord(child);
    });
}

/// Depth first, each child before its own children, with a stack of its own: a tree may be deeper than the stack of a
/// walk thread. A child's children are listed after `visit` was called for it. No folder is visited twice: in a damaged
/// catalogue one can be its own descendant.
void VolumeDBManager::forEachFolderBelow(int folderId, const std::function<void(int)>& visit)
{
    std::stack<std::vector<int>> levels; // the ids that are still to be done, the next one last
    std::unordered_set<int> seen { folderId };
    const auto descend = [&](int id) {
        const std::vector<int> children = getListOfFolders(id);
        levels.emplace(children.rbegin(), children.rend());
    };
    descend(folderId);
    while (!levels.empty()) {
        if (levels.top().empty()) {
            levels.pop();
            continue;
        }
        const int child = levels.top().back();
        levels.top().pop_back();
        if (!seen.insert(child).second)
            continue;
        visit(child);
        descend(child);
    }
}

// Files

bool VolumeDBManager::fileExists(DBFile& f)
{
    const std::string path = f.getPath();
    const std::string name = f.getName();
    Statement stmt(*this,
        "select file_id , folder_id , path , name , size , category , last_updated_time , modified_time , created_time from  files  where  path=?  and name=? and is_deleted=0");
    stmt.bind(path).bind(name);
    bool found = false;
    while (stmt.nextRow()) {
        f.setFile_id(stmt.columnInt(0));
        f.setFolder_id(stmt.columnInt(1));
        f.setPath(stmt.columnText(2));
        f.setName(stmt.columnText(3));
        f.setSize(stmt.columnInt(4)); // 32 bits on purpose: every walk then writes the size of larger files again
        f.setCategory(stmt.columnInt(5));
        f.setLast_updated_time(stmt.columnInt(6));
        f.setModified_time(stmt.columnInt(7));
        f.setCreated_time(stmt.columnInt(8));
        found = true;
    }
    stmt.check("fileExists() failed, handleStatus: %d\n");
    return found;
}

bool VolumeDBManager::fileRowExists(DBFile& f)
{
    const std::string path = f.getPath();
    const std::string name = f.getName();
    Statement stmt(*this,
        "select file_id , folder_id , path , name , size , category , last_updated_time , modified_time , created_time from  files  where  path=?  and name=?");
    stmt.bind(path).bind(name);
    bool found = false;
    while (stmt.nextRow()) {
        f.setFile_id(stmt.columnInt(0));
        f.setFolder_id(stmt.columnInt(1));
        f.setPath(stmt.columnText(2));
        f.setName(stmt.columnText(3));
        found = true;
    }
    stmt.check("fileExists() failed, handleStatus: %d\n"); // the text of its sibling: log readers know no other
    return found;
}

bool VolumeDBManager::insertFile(DBFile& f)
{
    if (fileExists(f))
        return false;
    DBFolder folder;
    folder.setPath(folderOf(f.getPath()));
    // A folder made here is not looked up again, on purpose: the file is filed under the id that insertFolder() leaves,
    // the climbed-to root's or 0. Walks insert folders before their files, and move such a file when they meet it.
    if (!folderExists(folder))
        insertFolder(folder, false);

    const std::string path = f.getPath();
    if (!fileRowExists(f)) {
        const std::string name = f.getName();
        Statement stmt(*this,
            "insert into files( folder_id  , name  , path  , size  , last_updated_time  , is_deleted  , modified_time , created_time , category , is_hidden) values(?,?,?,?,strftime('%s','now'), 0, ?,?,?,?)",
            Statement::lastDecides);
        stmt.bind(folder.getFolder_id()).bind(name).bind(path).bind(f.getSize());
        stmt.bind(f.getModified_time()).bind(f.getCreated_time()).bind(f.getCategory());
        stmt.bind(isHidden(path));
        stmt.run("insertFile() failed, handleStatus: %d\n");
        return true;
    }

    syslog(LOG_LOCAL5 | LOG_INFO, "Row for file %s exists in the DB so updating it\n", path.c_str());
    Statement stmt(*this,
        "update files set folder_id=?, size=?, last_updated_time=strftime('%s', 'now'), is_deleted=0, modified_time=?, created_time=?, category=? where file_id=?");
    // The low 32 bits of the size on purpose: a revived row of a large file is put right by the next walk.
    stmt.bind(folder.getFolder_id()).bind(static_cast<int>(f.getSize())).bind(f.getModified_time());
    stmt.bind(f.getCreated_time()).bind(f.getCategory()).bind(f.getFile_id());
    stmt.run("updateFolder() failed, handleStatus: %d\n"); // the text of updateFolder(): log readers know no other
    return true;
}

bool VolumeDBManager::updateFile(DBFile& f)
{
    const std::string name = f.getName();
    Statement stmt(*this,
        "update files set name=?, category=?, size=?, last_updated_time=strftime('%s','now'), modified_time=?, created_time=? where file_id = ?");
    stmt.bind(name).bind(f.getCategory()).bind(f.getSize()).bind(f.getModified_time()).bind(f.getCreated_time());
    stmt.bind(f.getFile_id());
    stmt.run("updateFile() failed, handleStatus: %d\n");
    return true;
}

bool VolumeDBManager::deleteFile(DBFile& f)
{
    std::printf("Deleting file %d\n", f.getFile_id());
    Statement stmt(*this, "update files set is_deleted=1, last_updated_time=strftime('%s','now') where file_id = ?");
    stmt.bind(f.getFile_id());
    stmt.run("deleteFile() failed, handleStatus: %d\n");
    return true;
}

bool VolumeDBManager::deleteFilesFromFolder(int folderId)
{
    Statement stmt(*this, "update files set is_deleted=1, last_updated_time=strftime('%s','now')  where folder_id = ?");
    stmt.bind(folderId);
    stmt.run("deleteFilesFromFolder() failed, handleStatus: %d\n");
    return true;
}

std::list<DBFile> VolumeDBManager::getFileListByFolder(DBFolder& d)
{
    Statement stmt(*this,
        "select path , name , category  , size  , modified_time , created_time from  files  where  folder_id=?  and is_deleted=0 ");
    stmt.bind(d.getFolder_id());
    std::list<DBFile> files;
    while (stmt.nextRow()) {
        DBFile& file = files.emplace_back();
        file.setPath(stmt.columnText(0));
        file.setName(stmt.columnText(1));
        file.setCategory(stmt.columnInt(2));
        file.setSize(stmt.columnInt64(3));
        file.setModified_time(stmt.columnInt(4));
        file.setCreated_time(stmt.columnInt(5));
        file.setIs_deleted(false);
    }
    stmt.check("getSimpleFileListByFolder() failed, handleStatus: %d\n"); // shared: log readers know no other
    return files;
}

std::list<SimpleDBFile> VolumeDBManager::getSimpleFileListByFolder(DBFolder& d)
{
    Statement stmt(
        *this, "select path , name , modified_time , created_time from  files  where  folder_id=?  and is_deleted=0 ");
    stmt.bind(d.getFolder_id());
    std::list<SimpleDBFile> files;
    while (stmt.nextRow())
        files.emplace_back(stmt.columnText(0), stmt.columnText(1), stmt.columnInt(2), stmt.columnInt(3));
    stmt.check("getSimpleFileListByFolder() failed, handleStatus: %d\n");
    return files;
}

int VolumeDBManager::purgeDeletedFiles(int threshold)
{
    Statement stmt(*this, "delete from files where is_deleted = 1 and last_updated_time < ?");
    stmt.bind(purgeCutoff(threshold));
    stmt.run("purgeDeletedFiles() failed, handleStatus: %d\n");
    return stmt.finalize();
}

// Moves

bool VolumeDBManager::moveFile(DBFile& src, DBFile& dst)
{
    DBFolder srcFolder;
    srcFolder.setPath(folderOf(src.getPath()));
    if (!folderExists(srcFolder) || fileExists(dst) || !fileExists(src))
        return false;
    DBFolder dstFolder;
    dstFolder.setPath(folderOf(dst.getPath()));
    const std::string dstFolderPath = dstFolder.getPath();
    if (!folderExists(dstFolder))
        insertFolder(dstFolder, false);
    dst.setFile_id(src.getFile_id());
    dst.setFolder_id(dstFolder.getFolder_id());
    dst.setPath(dstFolderPath + "/" + dst.getName());
    dst.setModified_time(src.getModified_time());
    dst.setCreated_time(src.getCreated_time());
    dst.setSize(src.getSize());
    insertFile(dst);
    deleteFile(src);
    return true;
}

bool VolumeDBManager::moveFolder(DBFolder& src, DBFolder& dst)
{
    std::printf("Moving %s to %s\n", src.getPath().c_str(), dst.getPath().c_str());
    const std::string inside = src.getPath() + "/";
    // No disk moves a folder into itself: the source row is stale, and its copies would be copied for ever.
    if (folderExists(dst) || dst.getPath().compare(0, inside.length(), inside) == 0)
        return false;
    const std::time_t start = std::time(nullptr);
    std::queue<DBFolder> folders; // breadth first, so that parents are there before their children
    folders.push(src);
    std::unordered_set<int> seen { src.getFolder_id() }; // see forEachFolderBelow()
    while (!folders.empty()) {
        if (isStopping())
            throw DBOperationException();
        DBFolder current = folders.front();
        folders.pop();
        moveContent(current, src, dst);
        for (const DBFolder& child : getFolderListByFolder(current)) {
            if (seen.insert(child.getFolder_id()).second)
                folders.push(child);
        }
    }
    deleteFolder(src);
    syslog(LOG_LOCAL5 | LOG_INFO, "The time taken to move %s to %s is %d\n", src.getPath().c_str(),
        dst.getPath().c_str(), static_cast<int>(std::time(nullptr) - start));
    return true;
}

/// Inserts one folder of a moved tree at its new place, with its files, and marks the old files deleted.
void VolumeDBManager::moveContent(DBFolder& from, DBFolder& src, DBFolder& dst)
{
    DBFolder moved;
    moved.resetFolder();
    moved.setPath(movedPath(from.getPath(), src.getPath(), dst.getPath()));
    moved.setCreated_time(from.getCreated_time());
    moved.setModified_time(from.getModified_time());
    insertFolder(moved, false);

    for (DBFile& old : getFileListByFolder(from)) {
        const std::string path = movedPath(old.getPath(), src.getPath(), dst.getPath());
        std::printf("Replaced the path to %s\n", path.c_str());
        DBFile file;
        file.reset();
        file.setName(old.getName());
        file.setPath(path);
        file.setCategory(old.getCategory());
        file.setCreated_time(old.getCreated_time());
        file.setModified_time(old.getModified_time());
        file.setSize(old.getSize());
        std::printf("Inserting file %s\n", path.c_str());
        insertFile(file);
        if (fileExists(old)) // the list has no ids
            deleteFile(old);
    }
}

// Rows rewritten in place

bool VolumeDBManager::updateFilePath(DBFile& f)
{
    const std::string path = f.getPath();
    const std::string name = f.getName();
    Statement stmt(*this,
        "update files set path=?, name=?, folder_id=?, last_updated_time=strftime('%s','now'), modified_time=?, created_time=? where file_id = ?");
    stmt.bind(path).bind(name).bind(f.getFolder_id()).bind(f.getModified_time()).bind(f.getCreated_time());
    stmt.bind(f.getFile_id());
    stmt.run("updateFilePath() failed, handleStatus: %d\n");
    return true;
}

bool VolumeDBManager::updateFolderName(int folderId, std::string name)
{
    Statement stmt(*this, "update folders set name=?, last_updated_time=strftime('%s','now') where folder_id = ?");
    stmt.bind(name).bind(folderId);
    stmt.run("updateFolderName() failed, handleStatus: %d\n");
    return true;
}

bool VolumeDBManager::updatePathAndNameForFolderByFolderById(std::string path, int folderId)
{
    Statement stmt(*this, "update folders set path=?, last_updated_time=strftime('%s','now')  where folder_id = ?");
    stmt.bind(path).bind(folderId);
    stmt.run("updatePathAndNameForFolderByIdFolderById() failed, handleStatus: %d\n"); // log readers know it doubled
    return true;
}

bool VolumeDBManager::updateFilesInFolderPath(int folderId, std::string path)
{
    // The folder's path for every file, not their own: embedding programs rely on it and set the rest themselves.
    Statement stmt(*this, "update files set path=?, last_updated_time=strftime('%s','now')  where folder_id = ?");
    stmt.bind(path).bind(folderId);
    stmt.run("updateFilesInFolderPath() failed, handleStatus: \n"); // without the number: log readers know no other
    return true;
}

void VolumeDBManager::updatePathForIndividualFolder(int folderId, int level, std::string element)
{
    DBFolder folder;
    folder.setFolder_id(folderId);
    findFolderByFolderId(folder);
    std::string path;
    int position = 0;
    Tokenizer elements(folder.getPath(), "/");
    for (std::string current = elements.next(); !current.empty(); current = elements.next())
        path += "/" + (position++ == level ? element : current);
    updatePathAndNameForFolderByFolderById(path, folderId);
    updateFilesInFolderPath(folderId, path);
}

void VolumeDBManager::updatePathAndNameForFolders(int folderId, int level, std::string element)
{
    forEachFolderBelow(folderId, [&](int child) { updatePathForIndividualFolder(child, level, element); });
}
