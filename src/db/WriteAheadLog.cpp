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
        return; // in use: no program can change that while this connection is open
    if (!catalogue.isOpen() || isUnusable)
        return;
    if (catalogue.hasMoved())
        return; // SQLite finds the log by name: it would be another catalogue's
    bool inUse = isEntered();
    // The value does not matter: any PRAGMA that reads the file makes the log and its index.
    if (inUse)
        execute("PRAGMA schema_version");
    if (sqlite3_extended_errcode(catalogue.get()) == SQLITE_IOERR_SHMMAP) {
        takeBack();
        inUse = false;
    }
    // Without a log, only full syncs let a catalogue survive a power cut.
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

/// Switches the main file to a log where that is possible. True when the file has one, now or before.
bool WriteAheadLog::isEntered() const
{
    // This is the first read of the file. It undoes, with full syncs, what a kill has left half done. The answer is
    // empty while another program prevents the read.
    std::string mode = journalModeAfter("PRAGMA journal_mode");
    if (mode == "memory" || mode == "off") // left by a failed try; with it a kill could damage the catalogue
        mode = journalModeAfter("PRAGMA journal_mode=DELETE");
    return mode == "wal" || (mode == "delete" && hasRoom() && hasDescriptors() && enter());
}

/// Switches the file to a log. A kill between the switch and the making of the log leaves a catalogue that readers
/// without write permission cannot open. Syncs and a journal would take most of that time. So the switch, which is one
/// write to the first page, goes without both. After a power cut neither order of the two writes is wrong.
bool WriteAheadLog::enter() const
{
    execute("PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY");
    const bool inUse = journalModeAfter("PRAGMA journal_mode=WAL") == "wal";
    if (!inUse)
        execute("PRAGMA journal_mode=DELETE");
    return inUse;
}

/// Whether the volume has room for a log. A file that was switched to a log cannot even be read when the log's index
/// finds no room.
bool WriteAheadLog::hasRoom() const
{
    struct statvfs64 volume;
    const char* path = catalogue.path();
    if (path == nullptr || statvfs64(path, &volume) != 0)
        return true;
    const bool countsInodes = volume.f_files != 0; // some file systems make inodes as needed and report 0
    return volume.f_bavail * volume.f_frsize >= roomForLogBytes && (!countsInodes || volume.f_favail >= logFiles);
}

/// Whether three descriptors are free: for the log, its index and one to spare. A file that was switched to a log
/// cannot be read either when the index cannot be opened.
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

/// Switches the file back from a log that cannot be used, because nobody could read the catalogue: some network and
/// user-space file systems cannot map files for sharing. A connection that is exclusive from its beginning needs no
/// mapping, so one is opened for the switch. While another program uses the catalogue, it stays as it is until the next
/// try.
void WriteAheadLog::takeBack()
{
    const std::string path = catalogue.path();
    catalogue.close();
    if (openAdmittedCatalogue(catalogue, path, false) != SQLITE_OK || catalogue.hasMoved()) {
        catalogue.close(); // from now on every operation fails, as before open()
        return;
    }
    execute("PRAGMA locking_mode=EXCLUSIVE");
    if (journalModeAfter("PRAGMA journal_mode=DELETE") == "delete") {
        isUnusable = !canMapIndex(path);
        unlinkWithoutLinks((path + "-shm").c_str());
    }
    // SQLite releases the exclusive lock only when it next reads the file.
    execute("PRAGMA locking_mode=NORMAL; PRAGMA schema_version");
    catalogue.configure();
}

/// When a reader prevents the switch, the log and its index stay: a reader without write permission can open a log that
/// is there, but not make one.
void WriteAheadLog::leave()
{
    catalogue.endAbandonedTransaction();
    if (catalogue.hasMoved()) { // SQLite would remove, by name, the log of the other catalogue
        keepFilesAtClose(true);
        removeOwn();
        return;
    }
    keepFilesAtClose(false);
    // Without syncs, as in enter(), when the whole log is in the main file and on the disk by now.
    const int rc = sqlite3_exec(catalogue.get(),
        isCopied() ? "PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY" : "PRAGMA journal_mode=DELETE", nullptr,
        nullptr, nullptr);
    keepFilesAtClose(rc != SQLITE_OK);
}

/// Removes our log from beside another catalogue, into which SQLite would replay it.
void WriteAheadLog::removeOwn() const
{
    if (!log.isKnown() || !log.isAt(logPath()))
        return;
    unlinkWithoutLinks(logPath().c_str());
    unlinkWithoutLinks(indexPath().c_str());
}

/// Makes a checkpoint. True when the main file then holds the whole log.
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

/// Runs a PRAGMA and returns the journal mode that it answers with; empty when it fails.
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

/// The result is ignored: a failure shows in the journal mode, or in the first statement of an operation.
void WriteAheadLog::execute(const char* sql) const { sqlite3_exec(catalogue.get(), sql, nullptr, nullptr, nullptr); }
