#include "db/CatalogueConnection.h"
#include "db/CatalogueTest.h"
#include "db/ConnectionProbe.h"
#include "db/DBOperationException.h"
#include "db/Statement.h"
#include "db/Transaction.h"
#include "support/SyslogCapture.h"
#include "support/Waiting.h"

#include <sqlite3.h>

#include <string>
#include <vector>

namespace {

/// Which statements a connection keeps, and for whom.
class StatementCacheTest : public CatalogueTest {
protected:
    StatementCacheTest()
    {
        openNew();
        insertFolderRow("/a", -1);
        insertFolderRow("/b", -1);
        connection.open(dbPath);
    }

    /// The statements that the connection has open, each with how often it ran: "COMMIT x1\n". In the order of their
    /// making.
    std::string openStatements() const
    {
        std::string all;
        sqlite3_stmt* open = nullptr;
        while ((open = sqlite3_next_stmt(connection.get(), open)) != nullptr)
            all.insert(0,
                std::string(sqlite3_sql(open)) + " x"
                    + std::to_string(sqlite3_stmt_status(open, SQLITE_STMTSTATUS_RUN, 0)) + "\n");
        return all;
    }
    /// The same without the one that takes the write lock.
    std::string kept() const
    {
        const std::string open = openStatements();
        const std::string::size_type own = open.find("delete from folders where 0");
        return own == std::string::npos ? open : open.substr(0, own) + open.substr(open.find('\n', own) + 1);
    }

    void begin() { connection.beginTransaction(); }

    /// The paths of the live folders from this one on.
    std::string pathsFrom(const std::string& path)
    {
        Statement stmt(connection, "select path from Folders where path >= ?");
        stmt.bind(path);
        std::string paths;
        while (stmt.nextRow())
            paths += stmt.columnText(0);
        return paths;
    }
    const std::string firstPath = "/a"; ///< to be bound, which borrows it
    const std::string pathsText = "select path from Folders where path >= ?";

    ConnectionProbe probe;
    CatalogueConnection connection;
};

TEST_F(StatementCacheTest, aTextIsPreparedOnceInATransaction)
{
    begin();
    EXPECT_EQ("/a/b", pathsFrom("/"));
    EXPECT_EQ("/b", pathsFrom("/b"));
    EXPECT_EQ("", pathsFrom("/c"));
    EXPECT_EQ(pathsText + " x3\n", kept());
}

TEST_F(StatementCacheTest, equalTextsAreOneWhereverTheyStand)
{
    static const char here[] = "select 1 from Folders";
    static const char there[] = "select 1 from Folders";
    begin();
    for (const char* text : { here, there })
        Statement(connection, text).run("%d");
    EXPECT_EQ("select 1 from Folders x2\n", kept());
}

TEST_F(StatementCacheTest, nothingIsKeptOutsideATransaction)
{
    EXPECT_EQ("/a/b", pathsFrom("/"));
    EXPECT_EQ("", kept());
    begin();
    pathsFrom("/");
    connection.commitTransaction();
    EXPECT_EQ("", kept());
    pathsFrom("/");
    EXPECT_EQ("", kept());
}

TEST_F(StatementCacheTest, nothingElseIsOpenWhenATransactionEnds)
{
    std::string openAtTheEnd;
    const auto look = [&] { openAtTheEnd += kept(); };
    begin();
    pathsFrom("/");
    probe.atTheStartOf("COMMIT", look);
    connection.commitTransaction();
    begin();
    pathsFrom("/");
    probe.atTheStartOf("ROLLBACK", look);
    connection.rollbackTransaction();
    begin();
    pathsFrom("/");
    probe.atTheStartOf("ROLLBACK", look);
    connection.abandonTransaction();
    EXPECT_EQ("COMMIT x0\nROLLBACK x0\nROLLBACK x0\n", openAtTheEnd);
}

TEST_F(StatementCacheTest, aTextInUseTwiceAtOnceGetsASecondStatement)
{
    begin();
    Statement outer(connection, "select path from Folders where path >= ?");
    outer.bind(firstPath);
    ASSERT_TRUE(outer.nextRow());
    EXPECT_EQ("/b", pathsFrom("/b"));
    EXPECT_EQ("/a", outer.columnText(0));
    ASSERT_TRUE(outer.nextRow());
    EXPECT_EQ("/b", outer.columnText(0));
    EXPECT_FALSE(outer.nextRow());
    outer.finalize();
    EXPECT_EQ(pathsText + " x1\n" + pathsText + " x1\n", kept());
    EXPECT_EQ("/a/b", pathsFrom("/"));
}

TEST_F(StatementCacheTest, aHalfReadStatementIsNotHandedOn)
{
    begin();
    {
        Statement half(connection, "select path from Folders where path >= ?");
        half.bind(firstPath);
        ASSERT_TRUE(half.nextRow());
    }
    EXPECT_EQ("", kept());
}

TEST_F(StatementCacheTest, aStatementThatNeverRanIsNotHandedOn)
{
    begin();
    Statement(connection, "select path from Folders where path >= ?").bind(firstPath);
    EXPECT_EQ("", kept());
}

TEST_F(StatementCacheTest, aFailedStatementIsNotHandedOn)
{
    change("create trigger refuse before update on Folders begin select raise(abort, 'no'); end");
    begin();
    pathsFrom("/");
    EXPECT_THROW(Statement(connection, "update Folders set is_deleted = 1").run("failed: %d\n"), DBOperationException);
    EXPECT_EQ(pathsText + " x1\n", kept());
    EXPECT_TRUE(connection.isInTransaction());
}

TEST_F(StatementCacheTest, anInterruptedStatementIsNotHandedOn)
{
    begin();
    pathsFrom("/");
    probe.atTheStartOf("select path", [this] { probe.interrupt(); });
    Statement interrupted(connection, "select path from Folders where path >= ?");
    interrupted.bind(firstPath);
    EXPECT_FALSE(interrupted.nextRow());
    EXPECT_THROW(interrupted.check("failed: %d\n"), DBOperationException);
    interrupted.finalize();
    EXPECT_EQ("", kept());
    EXPECT_EQ("/a/b", pathsFrom("/"));
}

TEST_F(StatementCacheTest, aStatementWithAFailedBindIsNotHandedOn)
{
    begin();
    pathsFrom("/");
    EXPECT_EQ("", pathsFrom(std::string(30000, 'x')));
    EXPECT_EQ("", kept());
}

TEST_F(StatementCacheTest, whatWasBoundIsUnboundForTheNext)
{
    begin();
    EXPECT_EQ("/a/b", pathsFrom("/"));
    Statement unbound(connection, "select path from Folders where path >= ?");
    EXPECT_FALSE(unbound.nextRow()) << "no path is greater than NULL";
    EXPECT_EQ(pathsText + " x2\n", kept());
}

TEST_F(StatementCacheTest, anInsertThatFailsToBindAValueDoesNotWriteThatOfTheOneBefore)
{
    change("create table Names(name text, length int)");
    const auto insert = [this](const std::string& name) {
        Statement stmt(connection, "insert into Names values(?, ?)", Statement::lastDecides);
        stmt.bind(name).bind(static_cast<int>(name.length()));
        stmt.run("failed: %d\n");
    };
    begin();
    insert("short");
    insert(std::string(30000, 'x')); // too long to be bound
    connection.commitTransaction();
    EXPECT_EQ("short 5\nNULL 30000\n", query("select * from Names"));
}

TEST_F(StatementCacheTest, whatATransactionKeptIsGoneWhenSqliteHasEndedIt)
{
    change("create trigger full before update on Folders begin select raise(rollback, 'as a full disk does'); end");
    begin();
    pathsFrom("/");
    EXPECT_THROW(Statement(connection, "update Folders set is_deleted = 1").run("failed: %d\n"), DBOperationException);
    EXPECT_FALSE(connection.isInTransaction());
    EXPECT_EQ("", kept());
    EXPECT_EQ("/a/b", pathsFrom("/"));
}

TEST_F(StatementCacheTest, nothingIsKeptWithoutTheWriteLock)
{
    begin(); // with the lock
    connection.commitTransaction();
    sqlite3* neighbour = nullptr;
    sqlite3_open(dbPath.c_str(), &neighbour);
    sqlite3_exec(neighbour, "begin immediate", nullptr, nullptr, nullptr);
    connection.requestStop(); // or it would wait for the neighbour
    begin();
    for (int run = 0; run < 2; ++run)
        EXPECT_EQ("/a/b", pathsFrom("/"));
    EXPECT_EQ("", kept());
    sqlite3_close(neighbour);
}

TEST_F(StatementCacheTest, theWriteLockIsTakenByOneStatementOfTheWholeConnection)
{
    for (int transaction = 0; transaction < 3; ++transaction) {
        begin();
        connection.commitTransaction();
    }
    EXPECT_EQ("delete from folders where 0 x3\n", openStatements());
}

TEST_F(StatementCacheTest, theWriteLockIsTakenAfterAForeignSchemaChangeToo)
{
    begin();
    connection.commitTransaction();
    change("create table Foreigners(name text)");
    begin();
    VolumeDBManager other;
    other.open(dbPath.c_str());
    other.requestStop();
    EXPECT_TRUE(throwsOperationException([&] {
        DBFolder folder = folderAt("/c");
        other.insertFolder(folder, true);
    })) << "only who owns the lock can write";
    pathsFrom("/");
    pathsFrom("/");
    connection.commitTransaction();
}

TEST_F(StatementCacheTest, aTransactionSeesAForeignSchemaChangeBeforeIt)
{
    begin();
    EXPECT_EQ("/a/b", pathsFrom("/"));
    connection.commitTransaction();
    change("drop index Folders_path; create index Folders_path on Folders(path desc)");
    begin();
    EXPECT_EQ("/b/a", pathsFrom("/"));
    EXPECT_EQ("/b/a", pathsFrom("/"));
}

TEST_F(StatementCacheTest, aStopLetsShortStatementsThroughHoweverOftenTheyRun)
{
    connection.configure();
    begin();
    connection.requestStop();
    for (int run = 0; run < 30000; ++run)
        ASSERT_EQ("/a/b", pathsFrom("/")) << run;
    connection.commitTransaction();
}

TEST_F(StatementCacheTest, eachRunHasItsOwnTime)
{
    const Transaction transaction(*db);
    DBFolder folder = folderAt("/a");
    db->folderExists(folder);
    db->updateFolder(folder);
    db->folderExists(folder);
    const int first = folder.getLast_updated_time();
    ASSERT_TRUE(waitUntil([first] { return secondsNow() > first; }));
    db->updateFolder(folder);
    db->folderExists(folder);
    EXPECT_LT(first, folder.getLast_updated_time());
}

TEST_F(StatementCacheTest, moreTextsThanThereIsRoomForAreRunAllTheSame)
{
    std::vector<std::string> texts;
    texts.reserve(100);
    for (int number = 0; number < 100; ++number)
        texts.push_back("select " + std::to_string(number));
    begin();
    for (int round = 0; round < 2; ++round)
        for (const std::string& text : texts) {
            Statement stmt(connection, text.c_str());
            ASSERT_TRUE(stmt.nextRow());
            EXPECT_EQ(text, "select " + std::to_string(stmt.columnInt(0)));
            EXPECT_FALSE(stmt.nextRow());
        }
    connection.commitTransaction();
    EXPECT_EQ("", kept());
}

TEST_F(StatementCacheTest, aClosedConnectionKeepsNothing)
{
    begin();
    pathsFrom("/");
    connection.close();
    close();
    EXPECT_EQ("quarrow.db\n", dumpCatalogueFolder()); // an open statement would have kept the log
}

} // namespace
