#include "db/CatalogueTest.h"
#include "db/ConnectionProbe.h"
#include "db/DBOperationException.h"
#include "support/SyslogCapture.h"

#include <signal.h>
#include <sqlite3.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <future>

static std::atomic<long long> milliSecondsSlept;

/// In place of the C library's, in this whole program.
extern "C" int nanosleep(const timespec* time, timespec* rest)
{
    milliSecondsSlept += time->tv_sec * 1000 + time->tv_nsec / 1000000;
    const int error = clock_nanosleep(CLOCK_REALTIME, 0, time, rest);
    if (error != 0)
        errno = error;
    return error == 0 ? 0 : -1;
}

namespace {

/// Another program with the catalogue open.
class Neighbour {
public:
    explicit Neighbour(const std::string& dbPath) { sqlite3_open(dbPath.c_str(), &connection); }
    ~Neighbour() { sqlite3_close(connection); }
    Neighbour(const Neighbour&) = delete;
    Neighbour& operator=(const Neighbour&) = delete;

    void run(const std::string& sql)
    {
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(connection, sql.c_str(), nullptr, nullptr, nullptr))
            << sqlite3_errmsg(connection);
    }

private:
    sqlite3* connection = nullptr;
};

const std::string foreignRow = folderRow("/Foreign", -1);

class CatalogueConnectionTest : public CatalogueTest {
protected:
    CatalogueConnectionTest()
    {
        openNew();
        probe.clear();
    }
    ~CatalogueConnectionTest() override { close(); }

    bool insert(const std::string& path)
    {
        DBFolder folder = folderAt(path);
        return db->insertFolder(folder, true);
    }

    /// Runs the call on a thread of its own and lets `whenBusy` happen when it has been kept waiting. Whether the call
    /// threw.
    bool runWhileBusy(const std::function<void()>& call, const std::function<void()>& whenBusy, Neighbour& neighbour)
    {
        std::future<bool> ended = std::async(std::launch::async, [&] { return throwsOperationException(call); });
        EXPECT_TRUE(probe.waitUntilBusy(2)) << "was not tried again";
        whenBusy();
        if (ended.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
            ADD_FAILURE() << "did not end";
            db->requestStop(); // either lets it end after all
            neighbour.run("rollback");
        }
        return ended.get();
    }

    ConnectionProbe probe;
};

/// SIGTERM arrives and is not served before the end of the scope.
class PendingStopSignal {
public:
    PendingStopSignal()
    {
        sigemptyset(&stop);
        sigaddset(&stop, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &stop, &before);
    }
    ~PendingStopSignal()
    {
        const timespec atOnce = {};
        sigtimedwait(&stop, nullptr, &atOnce);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    PendingStopSignal(const PendingStopSignal&) = delete;
    PendingStopSignal& operator=(const PendingStopSignal&) = delete;

    static void arrive() { kill(getpid(), SIGTERM); }

private:
    sigset_t stop = {};
    sigset_t before = {};
};

} // namespace

TEST_F(CatalogueConnectionTest, aStatementWaitsUntilTheNeighbourLetsGo)
{
    Neighbour neighbour(dbPath);
    neighbour.run("begin immediate; " + foreignRow);
    EXPECT_FALSE(runWhileBusy([&] { insert("/Music"); }, [&] { neighbour.run("commit"); }, neighbour));
    EXPECT_EQ("1 in -1 '/Foreign' live\n2 in -1 '/Music' live\n", dumpFolders());
    EXPECT_EQ(std::vector<LogLine> {}, loggedLines());
}

TEST_F(CatalogueConnectionTest, beginWaitsUntilTheNeighbourLetsGoAndThenSeesWhatHeWrote)
{
    Neighbour neighbour(dbPath);
    neighbour.run("begin immediate; " + foreignRow);
    bool sawForeign = false;
    bool inserted = false;
    const auto transaction = [&] {
        db->beginTransaction();
        DBFolder foreign = folderAt("/Foreign");
        sawForeign = db->folderExists(foreign);
        inserted = insert("/Music");
        db->commitTransaction();
    };
    EXPECT_FALSE(runWhileBusy(
        transaction, [&] { neighbour.run("commit"); }, neighbour));
    EXPECT_TRUE(sawForeign);
    EXPECT_TRUE(inserted);
    EXPECT_EQ("1 in -1 '/Foreign' live\n2 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(CatalogueConnectionTest, preparingWaitsToo)
{
    close();
    Neighbour neighbour(dbPath);
    neighbour.run("begin exclusive; " + foreignRow); // of a plain file: nobody can even read the schema
    open();
    probe.clear();
    clearLog();
    bool found = false;
    const auto lookUp = [&] {
        DBFolder foreign = folderAt("/Foreign");
        found = db->folderExists(foreign);
    };
    EXPECT_FALSE(runWhileBusy(
        lookUp, [&] { neighbour.run("commit"); }, neighbour));
    EXPECT_TRUE(found);
    EXPECT_EQ(std::vector<LogLine> {}, loggedLines());
}

TEST_F(CatalogueConnectionTest, commitWaitsForTheReadersOfAPlainFile)
{
    close();
    Neighbour neighbour(dbPath);
    neighbour.run("begin; select * from Folders");
    sqlite3* holder = nullptr; // keeps the file plain
    sqlite3_open(dbPath.c_str(), &holder);
    sqlite3_exec(holder, "begin; select * from Folders", nullptr, nullptr, nullptr);
    open();
    db->beginTransaction();
    insert("/Music");
    probe.clear();
    const auto letGo = [&] {
        sqlite3_close(holder);
        neighbour.run("rollback");
    };
    EXPECT_FALSE(runWhileBusy([&] { db->commitTransaction(); }, letGo, neighbour));
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(CatalogueConnectionTest, aStopRequestEndsTheWaitOfAStatement)
{
    Neighbour neighbour(dbPath);
    neighbour.run("begin immediate; " + foreignRow);
    EXPECT_TRUE(runWhileBusy([&] { insert("/Music"); }, [&] { db->requestStop(); }, neighbour));
    EXPECT_EQ(std::vector<LogLine>(), loggedLines()) << "a stop is no failure";
}

TEST_F(CatalogueConnectionTest, aStopRequestEndsTheWaitOfBeginAndNothingIsWritten)
{
    Neighbour neighbour(dbPath);
    neighbour.run("begin immediate; " + foreignRow);
    const auto transaction = [&] {
        db->beginTransaction();
        insert("/Music");
    };
    EXPECT_TRUE(runWhileBusy(
        transaction, [&] { db->requestStop(); }, neighbour));
    neighbour.run("rollback");
    EXPECT_EQ("", dumpFolders());
}

TEST_F(CatalogueConnectionTest, aStopRequestEndsTheWaitOfPreparing)
{
    close();
    Neighbour neighbour(dbPath);
    neighbour.run("begin exclusive; " + foreignRow);
    open();
    probe.clear();
    clearLog();
    const auto lookUp = [&] {
        DBFolder foreign = folderAt("/Foreign");
        db->folderExists(foreign);
    };
    EXPECT_TRUE(runWhileBusy(
        lookUp, [&] { db->requestStop(); }, neighbour));
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
}

TEST_F(CatalogueConnectionTest, aPendingStopSignalEndsTheWaitToo)
{
    const PendingStopSignal signal;
    Neighbour neighbour(dbPath);
    neighbour.run("begin immediate; " + foreignRow);
    EXPECT_TRUE(runWhileBusy([&] { insert("/Music"); }, PendingStopSignal::arrive, neighbour));
}

TEST_F(CatalogueConnectionTest, aStopRequestEndsALongStatement)
{
    change("with recursive numbers(n) as (select 1 union all select n+1 from numbers where n < 50000)"
           " insert into Files(folder_id, path, name, category, size, created_time, modified_time, is_deleted,"
           " last_updated_time) select 1, '/' || n, n, 4, 0, 0, 0, 1, 0 from numbers");
    db->requestStop();
    EXPECT_THROW(db->purgeDeletedFiles(0), DBOperationException);
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
    EXPECT_EQ("50000\n", query("select count(*) from Files"));
}

TEST_F(CatalogueConnectionTest, aFailureDuringAStopIsLogged)
{
    insert("/Music");
    change("drop table Files");
    db->requestStop();
    EXPECT_THROW(db->purgeDeletedFiles(0), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "purgeDeletedFiles() failed, handleStatus: 1\n" } }), loggedLines());
}

TEST_F(CatalogueConnectionTest, aStopRequestLetsShortStatementsThrough)
{
    db->requestStop();
    db->beginTransaction();
    EXPECT_TRUE(insert("/Music"));
    db->commitTransaction();
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(CatalogueConnectionTest, isTriedAgainOnceASecond)
{
    Neighbour neighbour(dbPath);
    neighbour.run("begin immediate");
    milliSecondsSlept = 0;
    std::future<bool> ended = std::async(std::launch::async, [&] { return insert("/Music"); });
    EXPECT_TRUE(probe.waitUntilBusy(2));
    EXPECT_LE(1000, milliSecondsSlept) << "between the first try and the second";
    EXPECT_GE(1100, milliSecondsSlept) << "the wait for the third try may have begun";
    neighbour.run("rollback");
    EXPECT_TRUE(ended.get());
}

/// Connections of one process that share their cache lock tables against each other, which is another result than busy.
TEST_F(CatalogueConnectionTest, whereATableIsLockedIsWaitedForToo)
{
    sqlite3_enable_shared_cache(1);
    sqlite3* own = nullptr;
    sqlite3_open(dbPath.c_str(), &own);
    Neighbour neighbour(dbPath);
    sqlite3_enable_shared_cache(0);
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(own, "select * from Folders", -1, &statement, nullptr));
    neighbour.run("begin; delete from Folders");
    ASSERT_EQ(SQLITE_LOCKED, sqlite3_step(statement));
    std::future<int> ended = std::async(std::launch::async, [&] { return db->executeSQLStmt(statement); });
    EXPECT_EQ(std::future_status::timeout, ended.wait_for(std::chrono::milliseconds(300))) << "it waits";
    neighbour.run("commit");
    EXPECT_EQ(SQLITE_DONE, ended.get());
    sqlite3_finalize(statement);
    sqlite3_close(own);
}

TEST_F(CatalogueConnectionTest, whereTheSchemaIsLockedIsWaitedForToo)
{
    insertFolderRow("/Music", -1);
    close();
    sqlite3_enable_shared_cache(1);
    open();
    Neighbour neighbour(dbPath);
    sqlite3_enable_shared_cache(0);
    neighbour.run("begin; create table Other(a)");
    DBFolder music = folderAt("/Music");
    std::future<bool> found = std::async(std::launch::async, [&] { return db->folderExists(music); });
    EXPECT_EQ(std::future_status::timeout, found.wait_for(std::chrono::milliseconds(300))) << "it waits";
    neighbour.run("commit");
    EXPECT_TRUE(found.get());
}

TEST_F(CatalogueConnectionTest, foreignKeysAreNotEnforced)
{
    openNew();
    EXPECT_EQ(0, probe.pragma("foreign_keys"));
}

TEST_F(CatalogueConnectionTest, aCacheOfAnySizeThatTheFileAsksForIsNotGiven)
{
    close();
    change("pragma default_cache_size=1000000000");
    open();
    EXPECT_EQ(-2000, probe.pragma("cache_size"));
}

TEST_F(CatalogueConnectionTest, whatTriggersMayAskForHasLimits)
{
    openNew();
    EXPECT_EQ(100000, probe.limit(SQLITE_LIMIT_SQL_LENGTH));
    EXPECT_EQ(0, probe.limit(SQLITE_LIMIT_ATTACHED));
    EXPECT_EQ(10, probe.limit(SQLITE_LIMIT_TRIGGER_DEPTH));
}

TEST_F(CatalogueConnectionTest, valuesHaveALimit)
{
    openNew();
    DBFolder folder = folderAt("/" + std::string(2000000, 'x'));
    EXPECT_TRUE(throwsOperationException([&] { db->insertFolder(folder, true); }));
}
