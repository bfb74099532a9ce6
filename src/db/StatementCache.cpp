#include "db/StatementCache.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>

sqlite3_stmt* StatementCache::take(const char* text)
{
    Idle* const end = idle.data() + count;
    Idle* const found
        = std::find_if(idle.data(), end, [text](const Idle& entry) { return std::strcmp(entry.text, text) == 0; });
    if (found == end)
        return nullptr;
    sqlite3_stmt* const statement = found->statement;
    *found = end[-1];
    --count;
    return statement;
}

void StatementCache::put(const char* text, sqlite3_stmt* statement)
{
    if (count == idle.size()) {
        sqlite3_finalize(statement);
        return;
    }
    sqlite3_reset(statement);
    // SQLite adds up the steps of all runs, and a stop ends what has taken many: that is meant for a long statement.
    sqlite3_stmt_status(statement, SQLITE_STMTSTATUS_VM_STEP, 1);
    sqlite3_clear_bindings(statement); // what the next operation fails to bind is NULL then, not what this one bound
    idle[count++] = { text, statement };
}

void StatementCache::clear()
{
    while (count > 0)
        sqlite3_finalize(idle[--count].statement);
}
