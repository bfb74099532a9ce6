#include "ctl/Catalogue.h"

#include "core/WithoutLinks.h"
#include "ctl/CatalogueUri.h"
#include "ctl/Problem.h"
#include "ctl/Query.h"
#include "ctl/ReadOnlyFiles.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace {

constexpr int busyMilliseconds = 5000;
constexpr int mostTries = 20;
constexpr std::chrono::milliseconds pauseBetweenTries { 50 };
constexpr int longestRow = 20000; // bytes: the daemon writes no longer ones
constexpr const char* makeAnew = "Remove it and restart the daemon, which makes it anew";

[[noreturn]] void failToFind(const std::string& path, int error)
{
    if (error == ENOENT || error == ENOTDIR)
        throw Problem(path, "There is no catalogue",
            "The daemon makes it when it starts: does it run, and is the volume mounted?");
    const std::string reason = std::string("The catalogue cannot be read: ") + std::strerror(error);
    throw Problem(path, reason,
        error == EACCES ? "Ask for the right to read this folder" : "Look at what is in its place, and at the disk");
}

/// Where the catalogue is, with the links followed that the daemon follows. A user of the volume can put anything in
/// its place: a link would show another file.
std::string findCatalogue(const std::string& path)
{
    if (path.empty() || path.front() != '/')
        throw Problem(path, "The volume's root is no absolute path: where it is depends on the daemon's current folder",
            "Write an absolute path into <Root>");
    struct stat64 status;
    if (stat64(path.c_str(), &status) != 0)
        failToFind(path, errno);
    std::string place = resolveOwnLinks(path, LinkedFile::followed);
    if (place.empty())
        throw Problem(path, "This is behind another user's link, and the daemon does not follow it either",
            "Remove the link, or make it as root");
    return place;
}

/// A pipe would hold this program.
void requireRegularFiles(const std::string& path)
{
    struct stat64 status;
    if (stat64(path.c_str(), &status) != 0)
        failToFind(path, errno);
    if (!S_ISREG(status.st_mode))
        throw Problem(path, "This is no regular file, so it is no catalogue", makeAnew);
    for (const char* suffix : { "-wal", "-shm", "-journal" }) {
        const std::string side = path + suffix;
        if (lstat64(side.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
            throw Problem(side, "This is no regular file", "Remove it and restart the daemon");
    }
}

/// Whether one of the catalogue's files is there and this user may not read it. Waiting does not help then.
bool isForbidden(const std::string& path)
{
    for (const char* suffix : { "", "-wal", "-shm" }) {
        if (access((path + suffix).c_str(), R_OK) != 0 && errno == EACCES)
            return true;
    }
    return false;
}

} // namespace

Catalogue::Catalogue(const std::string& path)
    : file(path)
{
    const std::string place = findCatalogue(path);
    // A daemon that starts says in the catalogue that there is a log, and a moment later makes its files.
    for (int triesLeft = mostTries; !tryToOpen(place, --triesLeft > 0);)
        std::this_thread::sleep_for(pauseBetweenTries);
    // Sorting is done in memory: nothing is written anywhere. These statements read the schema, so they come last: a
    // lock is waited for once.
    sqlite3_exec(handle, "PRAGMA temp_store=memory; PRAGMA cache_size=-8000; PRAGMA ignore_check_constraints=1",
        nullptr, nullptr, nullptr);
}

Catalogue::~Catalogue() { sqlite3_close(handle); }

bool Catalogue::tryToOpen(const std::string& place, bool mayTryAgain)
{
    requireRegularFiles(place);
    try {
        open(place);
        admit();
        return true;
    } catch (const Problem&) {
        const bool isFileMissing = (sqlite3_errcode(handle) & 0xff) == SQLITE_CANTOPEN && !isForbidden(place);
        sqlite3_close(handle);
        handle = nullptr;
        if (!isFileMissing || !mayTryAgain)
            throw;
        return false;
    }
}

void Catalogue::open(const std::string& place)
{
    const int flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX;
    const int status = sqlite3_open_v2(catalogueUri(place).c_str(), &handle, flags, readOnlyFiles());
    if (status != SQLITE_OK)
        fail(status);
    sqlite3_extended_result_codes(handle, 1);
    sqlite3_busy_timeout(handle, busyMilliseconds);
    // What somebody else has put into the schema is not to run, nor to make this program build large values.
    sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(handle, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    sqlite3_limit(handle, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_limit(handle, SQLITE_LIMIT_LENGTH, longestRow);
}

/// Reads the two tables' schema, which is also the first look at the file.
void Catalogue::admit() const
{
    // Neither virtual tables nor generated columns: they are programs, and somebody else's would run here.
    Query tables(*this,
        "select count(*) from sqlite_master where type='table' and name in ('Folders', 'Files')"
        " and sql like 'create table %' and not exists (select 1 from pragma_table_xinfo(sqlite_master.name)"
        " where hidden <> 0)");
    if (!tables.next() || tables.number(0) != 2)
        throw Problem(file, "This is another program's database, not a catalogue", makeAnew);
    Query(*this,
        "select folder_id, parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time"
        " from Folders limit 0")
        .next();
    Query(*this,
        "select file_id, folder_id, path, name, category, size, created_time, modified_time, is_deleted,"
        " last_updated_time from Files limit 0")
        .next();
}

void Catalogue::fail(int status) const
{
    const std::string reason = sqlite3_errmsg(handle);
    switch (status & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        throw Problem(file, "Another program has the catalogue locked", "Try again when it is done");
    case SQLITE_NOTADB:
        throw Problem(file, "This is no catalogue: " + reason, makeAnew);
    case SQLITE_CORRUPT:
        throw Problem(file, "The catalogue is damaged: " + reason, makeAnew);
    case SQLITE_CANTOPEN:
        throw Problem(file, "The catalogue cannot be opened: " + reason,
            "Ask for the right to read it and the files beside it; if those are missing, start the daemon");
    case SQLITE_READONLY:
        throw Problem(file, "An interrupted writer has left work in the files beside the catalogue",
            "Start the daemon, which puts that right");
    case SQLITE_TOOBIG:
        throw Problem(file, "Another program has written into the catalogue: a name is too long", makeAnew);
    case SQLITE_ERROR:
        throw Problem(file, "This is another program's database, not a catalogue: " + reason, makeAnew);
    default:
        throw Problem(file, "The catalogue cannot be read: " + reason, "Look at the kernel's log for a failing disk");
    }
}
