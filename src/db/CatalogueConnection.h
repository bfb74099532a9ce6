#pragma once

#include "core/StopRequest.h"
#include "db/FileIdentity.h"
#include "db/StatementCache.h"

#include <string>

struct sqlite3;
struct sqlite3_stmt;

/// The connection to the catalogue of one volume: it prepares and steps statements, waits while another program keeps
/// the database busy, and begins and ends transactions. Every operation fails in an orderly way while nothing is open.
///
/// The object takes no lock: its caller, who holds the volume's, makes one call at a time. Only requestStop() and
/// isStopping() are for any thread.
class CatalogueConnection {
public:
    CatalogueConnection() = default;
    /// One that heeds the given request, which outlives the object.
    explicit CatalogueConnection(StopRequest& stopRequest)
        : stop(stopRequest)
    {
    }
    ~CatalogueConnection(); ///< closes
    CatalogueConnection(const CatalogueConnection&) = delete;
    CatalogueConnection& operator=(const CatalogueConnection&) = delete;

    // The open file

    /// Opens the file at `path`, which must be there, and sets the limits. An SQLite status; after a failure close()
    /// is still to be called.
    int open(const std::string& path);
    void close();
    /// Sets the page cache, the length of the log, and that a stop ends a long statement.
    void configure();
    bool isOpen() const { return handle != nullptr; }
    sqlite3* get() const { return handle; } ///< nullptr while nothing is open
    /// The main file's name, as SQLite has it. Only while it is open.
    const char* path() const;
    /// Notes which file is open, for hasMoved(). It stays noted when the file is closed: takeBack() of the write-ahead
    /// log opens it again, and must not take another one for it.
    void rememberFile();
    /// Something else, or nothing, is in the place of the remembered file: another volume, a catalogue from a backup.
    bool hasMoved() const;
    /// Keeps that file the daemon's own.
    void keepFile() const;

    // The stop

    /// From now on waits and long statements end with a failure, so that the daemon can stop. Never taken back.
    void requestStop() { stop.make(); }
    /// Whether a stop was requested, or a SIGTERM waits to be served.
    bool isStopping() const { return stop.isMadeOrPending(); }

    // Statements

    /// A statement of this text, which the caller hands back with finish(); `text` must be a literal. Waits as step()
    /// does: to read the schema can meet a busy database just as a step can. nullptr when the statement cannot be
    /// prepared; binding or stepping it then fails.
    ///
    /// Within a transaction that owns the write lock, where nobody else can change the schema, it may be one that an
    /// earlier operation of the transaction has prepared and finished. All of those are finalized before COMMIT or
    /// ROLLBACK; outside a transaction none is kept.
    sqlite3_stmt* prepare(const char* text);
    /// Steps once, waiting while the database is busy or locked; the last SQLite result.
    int step(sqlite3_stmt* statement) const;
    /// Takes a statement back, with the status that it ended with. Only one that ran to its end is ever used again. The
    /// result is that of sqlite3_finalize().
    int finish(const char* text, sqlite3_stmt* statement, int status);

    // Transactions: VolumeDBManager says what the callers may rely on

    void beginTransaction();    ///< throws DBOperationException without a log line
    void commitTransaction();   ///< throws DBOperationException without a log line
    void rollbackTransaction(); ///< throws DBOperationException without a log line
    bool isInTransaction() const;
    void abandonTransaction();
    /// Rolls back what was abandoned and could not be rolled back then; false when it cannot be this time either.
    bool endAbandonedTransaction();

private:
    sqlite3_stmt* prepareNew(const char* text) const;
    bool keepsStatements() const;
    void runTransactionStatement(const char* text);
    void takeWriteLock();
    bool shallTryAgain(int status) const;
    bool waitForNeighbour() const;

    sqlite3* handle = nullptr;
    StatementCache statements;         ///< empty but for a transaction that owns the write lock
    sqlite3_stmt* writeLock = nullptr; ///< prepared with the first transaction, finalized by close()
    bool ownsWriteLock = false;        ///< what the latest transaction had at its start
    FileIdentity file;                 ///< the one that was open last
    bool abandoned = false;            ///< a transaction is open that could not be rolled back yet
    StopRequest ownStop;               ///< of a catalogue that nobody shares a request with
    StopRequest& stop = ownStop;       ///< any thread makes it and asks
};
