#include "SystemHooks.h"

#include <dlfcn.h>
#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <utility>

namespace {

template <typename Function>
Function* systems(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

OnReaddir::Hook readdirHook;
thread_local bool insideReaddirHook = false;

std::function<int(const pthread_attr_t*)> creationHook;
std::function<void()> joinHook;
std::function<bool(sem_t*)> semWaitHook;
std::function<void()> semPostHook;

std::mutex sleepMutex;
std::condition_variable sleepEnded;
bool newThreadsSleep = false;
bool awake = true;
int joins = 0;

std::mutex statementsMutex;
std::set<sqlite3_stmt*> statements; ///< of the catalogue: those prepared by the call that only the daemon uses
OnStatement::Hook statementHook;
std::string brokenText;
std::string countedText;
std::atomic<int> counted = 0;

struct ThreadStart {
    void* (*routine)(void*);
    void* argument;
};

void* sleepThenRun(void* data)
{
    const ThreadStart start = *std::unique_ptr<ThreadStart>(static_cast<ThreadStart*>(data));
    {
        std::unique_lock<std::mutex> held(sleepMutex);
        sleepEnded.wait_for(held, std::chrono::seconds(60), [] { return awake; });
    }
    return start.routine(start.argument);
}

std::string folderOf(DIR* directory)
{
    char path[8192];
    const std::string link = "/proc/self/fd/" + std::to_string(dirfd(directory));
    const ssize_t length = readlink(link.c_str(), path, sizeof path);
    return length < 0 ? "" : std::string(path, static_cast<std::string::size_type>(length));
}

} // namespace

extern "C" dirent* readdir(DIR* directory)
{
    static const auto system = systems<dirent*(DIR*)>("readdir64");
    dirent* entry = system(directory);
    if (!readdirHook || insideReaddirHook)
        return entry;
    const int error = errno;
    insideReaddirHook = true;
    dirent* answer = readdirHook(folderOf(directory), entry);
    insideReaddirHook = false;
    errno = error; // whatever the hook did meanwhile is no failure of this call
    if (answer == OnReaddir::failure()) {
        errno = EIO;
        return nullptr;
    }
    return answer;
}

extern "C" int pthread_create(
    pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* argument) noexcept
{
    static const auto system
        = systems<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    if (attributes == nullptr)
        return system(thread, attributes, routine, argument);
    if (creationHook) {
        const int result = creationHook(attributes);
        if (result != 0)
            return result;
    }
    if (!newThreadsSleep)
        return system(thread, attributes, routine, argument);
    return system(thread, attributes, sleepThenRun, new (std::nothrow) ThreadStart { routine, argument });
}

extern "C" int pthread_join(pthread_t thread, void** result)
{
    static const auto system = systems<int(pthread_t, void**)>("pthread_join");
    if (joinHook)
        joinHook();
    {
        const std::lock_guard<std::mutex> held(sleepMutex);
        if (!awake)
            ++joins;
        awake = true;
        sleepEnded.notify_all();
    }
    return system(thread, result);
}

extern "C" int sem_wait(sem_t* semaphore)
{
    static const auto system = systems<int(sem_t*)>("sem_wait");
    if (semWaitHook && semWaitHook(semaphore)) {
        errno = EINTR;
        return -1;
    }
    return system(semaphore);
}

extern "C" int sem_post(sem_t* semaphore) noexcept
{
    static const auto system = systems<int(sem_t*)>("sem_post");
    if (semPostHook)
        semPostHook();
    return system(semaphore);
}

static void tellOfStatement(const std::string& sql, sqlite3* connection)
{
    if (statementHook)
        statementHook(sql, connection);
    if (!countedText.empty() && sql.find(countedText) != std::string::npos)
        ++counted;
}

extern "C" int sqlite3_prepare(
    sqlite3* handle, const char* text, int bytes, sqlite3_stmt** statement, const char** tail)
{
    static const auto system
        = systems<int(sqlite3*, const char*, int, sqlite3_stmt**, const char**)>("sqlite3_prepare");
    const std::string sql = text;
    if (!brokenText.empty() && sql.find(brokenText) != std::string::npos) {
        tellOfStatement(sql, handle);
        *statement = nullptr;
        return SQLITE_ERROR;
    }
    const int status = system(handle, text, bytes, statement, tail);
    const std::lock_guard<std::mutex> held(statementsMutex);
    statements.insert(*statement);
    return status;
}

extern "C" int sqlite3_finalize(sqlite3_stmt* statement)
{
    static const auto system = systems<int(sqlite3_stmt*)>("sqlite3_finalize");
    {
        const std::lock_guard<std::mutex> held(statementsMutex);
        statements.erase(statement);
    }
    return system(statement);
}

/// Whether a statement of the catalogue is about to start. It may have run before: in a transaction a text is prepared
/// once.
static bool isAboutToStart(sqlite3_stmt* statement)
{
    const std::lock_guard<std::mutex> held(statementsMutex);
    return statements.count(statement) != 0 && sqlite3_stmt_busy(statement) == 0;
}

extern "C" int sqlite3_step(sqlite3_stmt* statement)
{
    static const auto system = systems<int(sqlite3_stmt*)>("sqlite3_step");
    if (statement != nullptr && isAboutToStart(statement))
        tellOfStatement(sqlite3_sql(statement), sqlite3_db_handle(statement));
    return system(statement);
}

OnReaddir::OnReaddir(Hook hook) { readdirHook = std::move(hook); }

dirent* OnReaddir::failure()
{
    static dirent sign;
    return &sign;
}

OnReaddir::~OnReaddir() { readdirHook = nullptr; }

OnThreadCreation::OnThreadCreation(std::function<int(const pthread_attr_t*)> hook) { creationHook = std::move(hook); }

OnThreadCreation::~OnThreadCreation() { creationHook = nullptr; }

OnThreadJoin::OnThreadJoin(std::function<void()> hook) { joinHook = std::move(hook); }

OnThreadJoin::~OnThreadJoin() { joinHook = nullptr; }

SleepyThreads::SleepyThreads()
{
    const std::lock_guard<std::mutex> held(sleepMutex);
    newThreadsSleep = true;
    awake = false;
    joins = 0;
}

SleepyThreads::~SleepyThreads()
{
    const std::lock_guard<std::mutex> held(sleepMutex);
    newThreadsSleep = false;
    awake = true;
    sleepEnded.notify_all();
}

int SleepyThreads::joined() const
{
    const std::lock_guard<std::mutex> held(sleepMutex);
    return joins;
}

OnSemWait::OnSemWait(std::function<bool(sem_t*)> hook) { semWaitHook = std::move(hook); }

OnSemWait::~OnSemWait() { semWaitHook = nullptr; }

OnSemPost::OnSemPost(std::function<void()> hook) { semPostHook = std::move(hook); }

OnSemPost::~OnSemPost() { semPostHook = nullptr; }

OnStatement::OnStatement(Hook hook) { statementHook = std::move(hook); }

OnStatement::~OnStatement() { statementHook = nullptr; }

BrokenStatement::BrokenStatement(const std::string& text) { brokenText = text; }

BrokenStatement::~BrokenStatement() { brokenText.clear(); }

StatementCount::StatementCount(const std::string& text)
{
    counted = 0;
    countedText = text;
}

StatementCount::~StatementCount() { countedText.clear(); }

int StatementCount::count() const { return counted; }
