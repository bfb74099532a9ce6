#include "db/Statement.h"

#include "db/CatalogueConnection.h"
#include "db/DBOperationException.h"

#include <sqlite3.h>
#include <syslog.h>

#include <utility>

Statement::Statement(CatalogueConnection& catalogue, const char* text, Binds counting)
    : connection(catalogue)
    , sql(text)
    , statement(catalogue.prepare(text))
    , binds(counting)
    , status(SQLITE_OK)
{
}

Statement::~Statement() { finalize(); }

Statement& Statement::bind(int value)
{
    ++position;
    if (mayBind())
        status = sqlite3_bind_int(statement, position, value);
    return *this;
}

Statement& Statement::bind(long long value)
{
    ++position;
    if (mayBind())
        status = sqlite3_bind_int64(statement, position, value);
    return *this;
}

Statement& Statement::bind(const std::string& value)
{
    ++position;
    if (mayBind())
        status = sqlite3_bind_text(statement, position, value.c_str(), -1, SQLITE_STATIC);
    return *this;
}

bool Statement::mayBind() const { return binds == lastDecides || status == SQLITE_OK; }

bool Statement::nextRow()
{
    if (status != SQLITE_OK && status != SQLITE_ROW)
        return false;
    status = connection.step(statement);
    return status == SQLITE_ROW;
}

void Statement::run(const char* failureText)
{
    while (nextRow()) { }
    check(failureText);
}

void Statement::check(const char* failureText) const
{
    if (status == SQLITE_OK || status == SQLITE_DONE)
        return;
    if (!wasGivenUpForStop())
        syslog(LOG_LOCAL5 | LOG_ERR, failureText, status);
    throw DBOperationException();
}

/// Whether the daemon is about to stop and nothing else is wrong. What the step returned is no reason, only a failure;
/// the reset tells it.
bool Statement::wasGivenUpForStop() const
{
    if (!connection.isStopping())
        return false;
    const int reason = statement != nullptr ? sqlite3_reset(statement) : sqlite3_errcode(connection.get());
    return reason == SQLITE_INTERRUPT || reason == SQLITE_BUSY || reason == SQLITE_LOCKED;
}

int Statement::finalize() { return connection.finish(sql, std::exchange(statement, nullptr), status); }

int Statement::columnInt(int column) const { return sqlite3_column_int(statement, column); }

long long Statement::columnInt64(int column) const { return sqlite3_column_int64(statement, column); }

std::string Statement::columnText(int column) const
{
    const unsigned char* text = sqlite3_column_text(statement, column);
    return text == nullptr ? "" : reinterpret_cast<const char*>(text);
}
