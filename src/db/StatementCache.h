#pragma once

#include <array>
#include <cstddef>

struct sqlite3_stmt;

/// Idle prepared statements of one connection, by their texts: to prepare a statement takes far longer than to run it.
/// CatalogueConnection decides how long they are good for. No operation throws, so that a destructor can hand back.
class StatementCache {
public:
    StatementCache() = default;
    ~StatementCache() { clear(); }
    StatementCache(const StatementCache&) = delete;
    StatementCache& operator=(const StatementCache&) = delete;

    /// A statement of this text, ready to be bound; nullptr when none is idle. It is the caller's then.
    sqlite3_stmt* take(const char* text);
    /// Takes over a statement that ran to its end without a failure, with `text` borrowed until clear(). What was bound
    /// is unbound. When there is no room for it, the statement is finalized.
    void put(const char* text, sqlite3_stmt* statement);
    /// Finalizes all of them.
    void clear();

private:
    struct Idle {
        const char* text;
        sqlite3_stmt* statement;
    };
    std::array<Idle, 32> idle; ///< the first `count` of them; there are fewer texts than this in all
    std::size_t count = 0;
};
