#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

/// Somebody else's connection that has the catalogue locked for writing until release() or the end of the scope.
class ForeignWriter {
public:
    explicit ForeignWriter(const std::string& dbPath)
    {
        EXPECT_EQ(SQLITE_OK, sqlite3_open_v2(dbPath.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr)) << dbPath;
        sqlite3_busy_timeout(handle, 60000);
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(handle, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr)) << dbPath;
    }
    ~ForeignWriter() { release(); }
    ForeignWriter(const ForeignWriter&) = delete;
    ForeignWriter& operator=(const ForeignWriter&) = delete;

    void release()
    {
        sqlite3_close(handle); // rolls back
        handle = nullptr;
    }

private:
    sqlite3* handle = nullptr;
};
