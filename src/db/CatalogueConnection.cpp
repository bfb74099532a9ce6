#include "db/CatalogueConnection.h"

#include "db/CatalogueFile.h"
#include "db/DBOperationException.h"

#include <sqlite3.h>

#include <chrono>
#include <thread>
#include <utility>

namespace {

constexpr int checkpointPages = 4000;          // few syncs in a long walk, and a log of at most some 16 MiB
constexpr int stepsBetweenStopChecks = 100000; // virtual machine steps, well under a second of work

/// What a catalogue needs, with room for an administrator's triggers: a file that somebody has prepared is not to make
/// the daemon build values of gigabytes.
constexpr struct {
    int category;
    int value;
} sqlLimits[] = {
    { SQLITE_LIMIT_LENGTH, 20000 }, // of a row, too, whose path and name have 4,351 bytes at the most
    { SQLITE_LIMIT_SQL_LENGTH, 100000 },
    { SQLITE_LIMIT_ATTACHED, 0 },
    { SQLITE_LIMIT_TRIGGER_DEPTH, 10 },
};

} // namespace

CatalogueConnection::~CatalogueConnection() { close(); }

// The open file

int CatalogueConnection::open(const std::string& path)
{
    // No mutex: the volume's lock keeps threads apart already, and a short statement locks a dozen times.
    constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX;
    const int rc = sqlite3_open_v2(path.c_str(), &handle, flags, nullptr);
    if (rc != SQLITE_OK)
        return rc; // SQLite hands out a handle also when it fails
    for (const auto& limit : sqlLimits)
        sqlite3_limit(handle, limit.category, limit.value);
    return rc;
}

void CatalogueConnection::close()
{
    statements.clear();
    sqlite3_finalize(std::exchange(writeLock, nullptr));
    sqlite3_close(std::exchange(handle, nullptr));
}

void CatalogueConnection::configure()
{
    // A file can ask for a page cache of any size.
    sqlite3_exec(handle, "PRAGMA cache_size=-2000", nullptr, nullptr, nullptr);
    sqlite3_wal_autocheckpoint(handle, checkpointPages);
    // A purge of a million rows is one statement; the daemon has to be able to stop in the middle of it.
    sqlite3_progress_handler(
        handle, stepsBetweenStopChecks,
        [](void* self) { return static_cast<CatalogueConnection*>(self)->isStopping() ? 1 : 0; }, this);
}

const char* CatalogueConnection::path() const { return sqlite3_db_filename(handle, "main"); }

void CatalogueConnection::rememberFile() { file = FileIdentity::of(path()); }

void CatalogueConnection::keepFile() const { keepOwnFile(path(), file); }

bool CatalogueConnection::hasMoved() const { return file.isKnown() && !file.isAt(path()); }

// Statements

sqlite3_stmt* CatalogueConnection::prepare(const char* text)
{
    if (!endAbandonedTransaction())
        return nullptr;
    sqlite3_stmt* const kept = keepsStatements() ? statements.take(text) : nullptr;
    return kept != nullptr ? kept : prepareNew(text);
}

sqlite3_stmt* CatalogueConnection::prepareNew(const char* text) const
{
    sqlite3_stmt* statement = nullptr;
    int rc;
    do {
        // The legacy call on purpose: a failing step of its statements reports a bare SQLITE_ERROR (1), whatever the
        // reason, and log readers know the failures under that number. sqlite3_prepare_v2() would give the reason's.
        rc = sqlite3_prepare(handle, text, -1, &statement, nullptr);
    } while (shallTryAgain(rc));
    return statement;
}

int CatalogueConnection::finish(const char* text, sqlite3_stmt* statement, int status)
{
    if (!keepsStatements()) {
        statements.clear(); // SQLite has ended the transaction that they are from
    } else if (statement != nullptr && status == SQLITE_DONE) {
        statements.put(text, statement);
        return SQLITE_OK;
    }
    return sqlite3_finalize(statement);
}

bool CatalogueConnection::keepsStatements() const { return ownsWriteLock && isInTransaction(); }

int CatalogueConnection::step(sqlite3_stmt* statement) const
{
    int rc;
    do {
        rc = sqlite3_step(statement);
    } while (shallTryAgain(rc));
    return rc;
}

/// Whether a neighbour prevented the call and there was time to wait for him.
bool CatalogueConnection::shallTryAgain(int status) const
{
    return (status == SQLITE_BUSY || status == SQLITE_LOCKED) && waitForNeighbour();
}

/// Waits one second; false, at once, when the daemon is about to stop: nobody then waits for a neighbour any longer.
bool CatalogueConnection::waitForNeighbour() const
{
    using namespace std::chrono_literals;
    for (int slice = 0; slice < 10; ++slice) {
        if (isStopping())
            return false;
        std::this_thread::sleep_for(100ms);
    }
    return true;
}

// Transactions

void CatalogueConnection::beginTransaction()
{
    runTransactionStatement("BEGIN");
    takeWriteLock();
    ownsWriteLock = sqlite3_txn_state(handle, "main") == SQLITE_TXN_WRITE;
}

void CatalogueConnection::commitTransaction() { runTransactionStatement("COMMIT"); }

void CatalogueConnection::rollbackTransaction() { runTransactionStatement("ROLLBACK"); }

bool CatalogueConnection::isInTransaction() const { return handle != nullptr && sqlite3_get_autocommit(handle) == 0; }

void CatalogueConnection::abandonTransaction()
{
    try {
        if (isInTransaction())
            rollbackTransaction();
    } catch (const DBOperationException&) {
        abandoned = true;
    }
}

bool CatalogueConnection::endAbandonedTransaction()
{
    // The mark is taken away first: the rollback is a statement, and comes back here before it is prepared.
    if (std::exchange(abandoned, false))
        abandonTransaction();
    return !abandoned;
}

void CatalogueConnection::runTransactionStatement(const char* text)
{
    const bool mayRun = endAbandonedTransaction();
    statements.clear();
    sqlite3_stmt* const statement = mayRun ? prepareNew(text) : nullptr;
    const int rc = step(statement);
    sqlite3_finalize(statement);
    if (rc != SQLITE_OK && rc != SQLITE_DONE)
        throw DBOperationException();
}

/// A write that matches no row. A transaction that has read before another program commits can never write: every
/// later step would be busy for ever. One that owns the write lock from the start cannot be overtaken. It writes
/// nothing by itself, and where it fails (no such table, a read-only file) the first real statement says why.
void CatalogueConnection::takeWriteLock()
{
    int rc;
    do {
        // Not the legacy call: sqlite3_prepare_v3() prepares again when another program has changed the schema. With
        // the legacy call the step would fail then, and the transaction begin without the write lock.
        rc = writeLock != nullptr ? SQLITE_OK
                                  : sqlite3_prepare_v3(handle, "delete from folders where 0", -1,
                                      SQLITE_PREPARE_PERSISTENT, &writeLock, nullptr);
        if (rc == SQLITE_OK)
            rc = sqlite3_step(writeLock);
        sqlite3_reset(writeLock);
    } while (shallTryAgain(rc));
}
