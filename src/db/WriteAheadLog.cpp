#include "db/WriteAheadLog.h"

#include "core/WithoutLinks.h"
#include "db/CatalogueConnection.h"
#include "db/CatalogueFile.h"
#include "db/CatalogueOpening.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr unsigned long roomForLogBytes = 1048576; // its index, 32 KiB at the least, and some transactions
constexpr unsigned long logFiles = 2;              // the log and its index

} // namespace

WriteAheadLog::WriteAheadLog(CatalogueConnection& connection)
    : catalogue(connection)
{
}

void WriteAheadLog::forget()
{
    log = FileIdentity();
    index = FileIdentity();
    isUnusable = false;
}

// Into it

void WriteAheadLog::use()
{
    if (log.isKnown())
        return; // in use; as long as this connection is there nobody can change that
    if (!catalogue.isOpen() || isUnusable)
        return;
    if (catalogue.hasMoved())
        return; // the log is found by name: it would be that of the other catalogue
    bool inUse = isEntered();
    // Any PRAGMA that reads the file makes the log and its index. The value does not matter.
    if (inUse)
        execute("PRAGMA schema_version");
    if (sqlite3_extended_errcode(catalogue.get()) == SQLITE_IOERR_SHMMAP) {
        takeBack();
        inUse = false;
    }
    // Without a log, full syncs are what a catalogue needs to survive a power cut.
    execute(inUse ? "PRAGMA synchronous=NORMAL" : "PRAGMA synchronous=FULL");
    if (inUse && !catalogue.hasMoved()) {
        log = FileIdentity::of(logPath());
        index = FileIdentity::of(indexPath());
    }
}

void WriteAheadLog::keepFiles() const
{
    keepOwnFile(logPath(), log);
    keepOwnFile(indexPath(), index);
}

/// Whether the main file is one with a log, either already or from now on.
bool WriteAheadLog::isEntered() const
{
    // The first look at the file: it brings back, with full syncs, what a kill has left half done. The answer is empty
    // when somebody is in the way.
    std::string mode = journalModeAfter("PRAGMA journal_mode");
    if (mode == "memory" || mode == "off") // left by a try that failed half-way: a kill could damage the catalogue
        mode = journalModeAfter("PRAGMA journal_mode=DELETE");
    return mode == "wal" || (mode == "delete" && hasRoom() && hasDescriptors() && enter());
}

/// A kill between the switch of the file and the making of the log leaves a catalogue that readers without write
/// permission cannot open. So the switch, which is one write to the first page, goes without a journal and without
/// syncs: they would take most of that time, and neither order of the two writes is wrong after a power cut.
bool WriteAheadLog::enter() const
{
    execute("PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY");
    const bool inUse = journalModeAfter("PRAGMA journal_mode=WAL") == "wal";
    if (!inUse)
        execute("PRAGMA journal_mode=DELETE");
    return inUse;
}

/// A file that has been switched to a log which then finds no room for its index cannot even be read.
bool WriteAheadLog::hasRoom() const
{
    struct statvfs64 volume;
    const char* path = catalogue.path();
    if (path == nullptr || statvfs64(path, &volume) != 0)
        return true;
    const bool countsInodes = volume.f_files != 0; // where they are made as needed there is nothing to count
    return volume.f_bavail * volume.f_frsize >= roomForLogBytes && (!countsInodes || volume.f_favail >= logFiles);
}

/// For the log, its index and one to spare. A file that has been switched to a log whose index then cannot be opened is
/// likewise lost to readers.
bool WriteAheadLog::hasDescriptors()
{
    int taken[3];
    for (int& descriptor : taken)
        descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    bool enough = true;
    for (const int descriptor : taken)
        enough = descriptor >= 0 && close(descriptor) == 0 && enough;
    return enough;
}

// Out of it

/// Where files cannot be mapped for sharing (some network and user-space file systems), nobody could read the
/// catalogue. A connection that has it for itself from its beginning needs no mapping. While another program uses the
/// catalogue it stays as it is until the next try.
void WriteAheadLog::takeBack()
{
    const std::string path = catalogue.path();
    catalogue.close();
    if (openAdmittedCatalogue(catalogue, path, false) != SQLITE_OK || catalogue.hasMoved()) {
        catalogue.close(); // operations fail as before open()
        return;
    }
    execute("PRAGMA locking_mode=EXCLUSIVE");
    if (journalModeAfter("PRAGMA journal_mode=DELETE") == "delete") {
        isUnusable = !canMapIndex(path);
        unlinkWithoutLinks((path + "-shm").c_str());
    }
    // SQLite gives up the exclusive lock only with the next look at the file.
    execute("PRAGMA locking_mode=NORMAL; PRAGMA schema_version");
    catalogue.configure();
}

/// With a reader in the way the log stays, files and all: a reader that may not write can open a log that is there, but
/// not make one.
void WriteAheadLog::leave()
{
    catalogue.endAbandonedTransaction();
    if (catalogue.hasMoved()) { // SQLite would take away, by name, the log of the other catalogue
        keepFilesAtClose(true);
        removeOwn();
        return;
    }
    keepFilesAtClose(false);
    // As in enter(), if the log is in the file and on the disk by now: then nothing else needs a sync.
    const int rc = sqlite3_exec(catalogue.get(),
        isCopied() ? "PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY" : "PRAGMA journal_mode=DELETE", nullptr,
        nullptr, nullptr);
    keepFilesAtClose(rc != SQLITE_OK);
}

/// Our log beside somebody else's catalogue would be replayed into that.
void WriteAheadLog::removeOwn() const
{
    if (!log.isKnown() || !log.isAt(logPath()))
        return;
    unlinkWithoutLinks(logPath().c_str());
    unlinkWithoutLinks(indexPath().c_str());
}

/// Whether the main file has all of the log after a checkpoint.
bool WriteAheadLog::isCopied() const
{
    int logPages = -1;
    int copiedPages = 0;
    const int rc
        = sqlite3_wal_checkpoint_v2(catalogue.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE, &logPages, &copiedPages);
    return rc == SQLITE_OK && logPages == copiedPages;
}

void WriteAheadLog::keepFilesAtClose(bool shallKeep) const
{
    int keep = shallKeep ? 1 : 0;
    sqlite3_file_control(catalogue.get(), nullptr, SQLITE_FCNTL_PERSIST_WAL, &keep);
}

void WriteAheadLog::checkpoint()
{
    if (!catalogue.isOpen())
        return;
    catalogue.endAbandonedTransaction();
    sqlite3_wal_checkpoint_v2(catalogue.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
}

std::string WriteAheadLog::logPath() const { return std::string(catalogue.path()) + "-wal"; }

std::string WriteAheadLog::indexPath() const { return std::string(catalogue.path()) + "-shm"; }

/// The journal mode that a PRAGMA answers with; empty when it fails.
std::string WriteAheadLog::journalModeAfter(const char* pragma) const
{
    std::string mode;
    sqlite3_exec(
        catalogue.get(), pragma,
        [](void* result, int, char** value, char**) {
            *static_cast<std::string*>(result) = value[0] != nullptr ? value[0] : "";
            return 0;
        },
        &mode, nullptr);
    return mode;
}

/// What fails here shows in the journal mode, or with the first statement of an operation.
void WriteAheadLog::execute(const char* sql) const { sqlite3_exec(catalogue.get(), sql, nullptr, nullptr, nullptr); }
