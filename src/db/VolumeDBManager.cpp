#include "db/VolumeDBManager.h"

#include "core/SignalMask.h"
#include "core/WithoutLinks.h"
#include "db/CatalogueAdmission.h"
#include "db/CatalogueFile.h"
#include "db/DBOperationException.h"

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
#include <iterator>
#include <memory>
#include <new>
#include <set>
#include <string_view>
#include <thread>
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
