#include "db/ConnectionProbe.h"

#include <sqlite3.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace {

std::mutex mutex;
std::condition_variable wasBusy;
std::string texts;
std::string boundTexts;
int busyCount;
int textLimit;
int limitingAction;
int refusedAction;
sqlite3* latest;
std::string awaited;
std::function<void()> awaitedAction;

int statementStarts(unsigned, void*, void* statement, void* text)
{
    auto* const started = static_cast<sqlite3_stmt*>(statement);
    const std::string unbound = static_cast<const char*>(text);
    char* const bound = sqlite3_expanded_sql(started);
    const std::lock_guard<std::mutex> held(mutex);
    texts += unbound + "\n";
    boundTexts += (bound == nullptr ? "" : std::string(bound)) + "\n";
    sqlite3_free(bound);
    if (awaitedAction && unbound.compare(0, awaited.length(), awaited) == 0)
        std::exchange(awaitedAction, nullptr)();
    return 0;
}

int statementIsPrepared(void* connection, int action, const char*, const char*, const char*, const char*)
{
    const std::lock_guard<std::mutex> held(mutex);
    if (action == limitingAction)
        sqlite3_limit(static_cast<sqlite3*>(connection), SQLITE_LIMIT_LENGTH, textLimit);
    return action == refusedAction ? SQLITE_DENY : SQLITE_OK;
}

/// Gives up at once: the connection behaves as one without any busy handling.
int isBusy(void*, int)
{
    const std::lock_guard<std::mutex> held(mutex);
    ++busyCount;
    wasBusy.notify_all();
    return 0;
}

int watch(sqlite3* connection, char**, const struct sqlite3_api_routines*)
{
    sqlite3_trace_v2(connection, SQLITE_TRACE_STMT, statementStarts, nullptr);
    sqlite3_set_authorizer(connection, statementIsPrepared, connection);
    sqlite3_busy_handler(connection, isBusy, nullptr);
    const std::lock_guard<std::mutex> held(mutex);
    latest = connection;
    return SQLITE_OK;
}

using Extension = void (*)();

} // namespace

ConnectionProbe::ConnectionProbe()
{
    limitingAction = nothing;
    refusedAction = nothing;
    clear();
    sqlite3_auto_extension(reinterpret_cast<Extension>(watch));
}

ConnectionProbe::~ConnectionProbe()
{
    awaitedAction = nullptr;
    sqlite3_cancel_auto_extension(reinterpret_cast<Extension>(watch));
}

std::string ConnectionProbe::statements() const
{
    const std::lock_guard<std::mutex> held(mutex);
    return texts;
}

std::string ConnectionProbe::boundStatements() const
{
    const std::lock_guard<std::mutex> held(mutex);
    return boundTexts;
}

void ConnectionProbe::clear()
{
    const std::lock_guard<std::mutex> held(mutex);
    texts.clear();
    boundTexts.clear();
    busyCount = 0;
}

void ConnectionProbe::atTheStartOf(const std::string& beginning, const std::function<void()>& action)
{
    const std::lock_guard<std::mutex> held(mutex);
    awaited = beginning;
    awaitedAction = action;
}

void ConnectionProbe::interrupt() const { sqlite3_interrupt(latest); }

bool ConnectionProbe::waitUntilBusy(int times)
{
    std::unique_lock<std::mutex> held(mutex);
    return wasBusy.wait_for(held, std::chrono::seconds(60), [&] { return busyCount >= times; });
}

int ConnectionProbe::pragma(const std::string& text) const
{
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(latest, ("pragma " + text).c_str(), -1, &statement, nullptr);
    const int value = sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int(statement, 0) : -1;
    sqlite3_finalize(statement);
    return value;
}

int ConnectionProbe::limit(int category) const { return sqlite3_limit(latest, category, -1); }

void ConnectionProbe::refuseTextsOver(int bytes, int fromAction)
{
    const std::lock_guard<std::mutex> held(mutex);
    textLimit = bytes;
    limitingAction = fromAction;
}

void ConnectionProbe::refuse(int action)
{
    const std::lock_guard<std::mutex> held(mutex);
    refusedAction = action;
}
