#pragma once

#include <string>

struct sqlite3_stmt;
class VolumeDBManager;

/// One SQL statement, prepare to finalize, on the stack of the operation that runs it. The first failed bind or step
/// sticks and later ones do nothing; a failed prepare shows up as the first of them.
class Statement {
public:
    Statement(VolumeDBManager& catalogue, const char* text);
    ~Statement(); ///< finalizes, also while an exception passes
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int value); ///< by position, from 1
    Statement& bind(long long value);
    Statement& bind(const std::string& value); ///< borrows the string until the statement ends
    /// The last bind of an insert: whatever became of the binds before it, this one alone decides.
    Statement& bindDeciding(int value);

    /// Steps through executeSQLStmt(), which waits out a busy or locked database. False at the end and after a failure.
    bool nextRow();
    /// Steps to the end, then as check().
    void run(const char* failureText);
    /// Unless all went well, logs the text with the status and throws DBOperationException.
    void check(const char* failureText) const;
    /// The status of the latest bind or step.
    int result() const { return status; }
    /// Ends the statement early and returns SQLite's result for it.
    int finalize();

    int columnInt(int column) const; ///< by position, from 0
    long long columnInt64(int column) const;
    std::string columnText(int column) const; ///< empty for NULL

private:
    VolumeDBManager& db;
    sqlite3_stmt* statement;
    int status;
    int position = 0;
};
