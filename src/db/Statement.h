#pragma once

#include <string>

struct sqlite3_stmt;
class CatalogueConnection;

/// One SQL statement on the stack of the operation that runs it, from the connection and back to it. A failed prepare
/// shows up as a failed bind, and a statement whose binds or steps failed is not stepped any further.
class Statement {
public:
    /// Which of several binds count: the first failure, after which no more are made, or only what became of the last.
    enum Binds { firstFailureStops, lastDecides };

    /// `text` must be a literal.
    Statement(CatalogueConnection& catalogue, const char* text, Binds counting = firstFailureStops);
    ~Statement(); ///< hands the statement back, also while an exception passes
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int value); ///< by position, from 1
    Statement& bind(long long value);
    Statement& bind(const std::string& value); ///< borrows the string until the statement ends

    /// Steps, waiting while the database is busy or locked. False at the end and after a failure.
    bool nextRow();
    /// Steps to the end, then as check().
    void run(const char* failureText);
    /// Unless all went well, logs the text with the status and throws DBOperationException. What a stop has ended is
    /// not logged: it is no failure.
    void check(const char* failureText) const;
    /// Ends the statement early and returns SQLite's result for it.
    int finalize();

    int columnInt(int column) const; ///< by position, from 0
    long long columnInt64(int column) const;
    std::string columnText(int column) const; ///< empty for NULL

private:
    bool mayBind() const;
    bool wasGivenUpForStop() const;

    CatalogueConnection& connection;
    const char* sql;
    sqlite3_stmt* statement;
    Binds binds;
    int status;
    int position = 0;
};
