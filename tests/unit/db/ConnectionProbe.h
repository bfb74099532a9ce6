#pragma once

#include <functional>
#include <string>

/// Watches every SQLite connection that is opened while the object lives, from the inside: which statements start and
/// how often the database was busy. One at a time; it outlives the connections that it watches.
class ConnectionProbe {
public:
    ConnectionProbe();
    ~ConnectionProbe();
    ConnectionProbe(const ConnectionProbe&) = delete;
    ConnectionProbe& operator=(const ConnectionProbe&) = delete;

    /// The texts of the statements started since the last clear(), as they were prepared, each ended by a newline.
    std::string statements() const;
    /// The same with the bound values put in.
    std::string boundStatements() const;
    void clear();

    /// Calls `action`, once, when a statement whose text begins so starts.
    void atTheStartOf(const std::string& beginning, const std::function<void()>& action);

    /// Ends the statement that runs, or is about to start, with a failure.
    void interrupt() const;

    /// Waits, up to a generous bound, until a connection was kept waiting this many times since the last clear().
    bool waitUntilBusy(int times);

    /// The value of a pragma, read or set ("synchronous", "max_page_count=40"), on the connection opened last, which
    /// must still be open: what SQLite says of a connection to nobody else.
    int pragma(const std::string& text) const;

    /// One of the limits (SQLITE_LIMIT_LENGTH, ...) of that connection.
    int limit(int category) const;

    /// Once a statement with this action (SQLITE_INSERT, ...) is prepared, its connection takes no longer texts:
    /// binding one fails.
    void refuseTextsOver(int bytes, int fromAction);

    /// Statements with this action (SQLITE_TRANSACTION, ...) cannot be prepared, until it is called with `nothing`.
    void refuse(int action);
    static constexpr int nothing = -1;
};
