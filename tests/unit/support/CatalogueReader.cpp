#include "support/CatalogueReader.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

namespace {

/// A connection for the length of a scope.
struct Connection {
    explicit Connection(const std::string& dbPath, int flags)
    {
        sqlite3_open_v2(dbPath.c_str(), &handle, flags, nullptr);
        sqlite3_busy_timeout(handle, 60000);
    }
    ~Connection() { sqlite3_close(handle); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    sqlite3* handle = nullptr;
};

int appendRow(void* rows, int columns, char** values, char**)
{
    auto& text = *static_cast<std::string*>(rows);
    for (int column = 0; column < columns; ++column)
        text += (column > 0 ? " " : "") + std::string(values[column] == nullptr ? "NULL" : values[column]);
    text += "\n";
    return 0;
}

} // namespace

std::string queryCatalogue(const std::string& dbPath, const std::string& sql)
{
    const Connection reader(dbPath, SQLITE_OPEN_READONLY);
    std::string rows;
    if (sqlite3_exec(reader.handle, sql.c_str(), appendRow, &rows, nullptr) != SQLITE_OK)
        return std::string("error: ") + sqlite3_errmsg(reader.handle);
    return rows;
}

void changeCatalogue(const std::string& dbPath, const std::string& sql)
{
    const Connection writer(dbPath, SQLITE_OPEN_READWRITE);
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(writer.handle, sql.c_str(), nullptr, nullptr, nullptr))
        << sql << ": " << sqlite3_errmsg(writer.handle);
}
