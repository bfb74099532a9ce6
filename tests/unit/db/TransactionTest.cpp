#include "db/Transaction.h"
#include "db/CatalogueTest.h"
#include "db/ConnectionProbe.h"
#include "db/DBOperationException.h"
#include "support/CatalogueReader.h"
#include "support/SyslogCapture.h"

#include <sqlite3.h>

#include <chrono>
#include <future>

namespace {

class TransactionTest : public CatalogueTest {
protected:
    TransactionTest() { openNew(); }

    bool insert(const std::string& path)
    {
        DBFolder folder = folderAt(path);
        return db->insertFolder(folder, true);
    }

    void insertInScope(const std::string& path)
    {
        Transaction transaction(*db);
        insert(path);
        transaction.commit();
    }

    /// What another program gets when it writes right now, without waiting.
    int foreignWrite(const std::string& path) const
    {
        sqlite3* foreign = nullptr;
        sqlite3_open(dbPath.c_str(), &foreign);
        const int result = sqlite3_exec(foreign, folderRow(path, -1).c_str(), nullptr, nullptr, nullptr);
        sqlite3_close(foreign);
        return result;
    }

    /// Gives up a transaction that cannot be rolled back as long as the probe refuses it.
    void abandonOne(ConnectionProbe& probe)
    {
        const Transaction transaction(*db);
        insert("/Music");
        probe.refuse(SQLITE_TRANSACTION);
    }

    void expectNothingLogged() const { EXPECT_EQ(std::vector<LogLine> {}, loggedLines()); }
};

} // namespace

TEST_F(TransactionTest, commitMakesTheWorkVisible)
{
    EXPECT_TRUE(db->beginTransaction());
    insert("/Music");
    EXPECT_EQ("", dumpFolders());
    EXPECT_TRUE(db->commitTransaction());
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
    expectNothingLogged();
}

TEST_F(TransactionTest, rollbackUndoesTheWork)
{
    db->beginTransaction();
    insert("/Music");
    EXPECT_TRUE(db->rollbackTransaction());
    EXPECT_FALSE(db->isInTransaction());
    EXPECT_EQ("", dumpFolders());
    expectNothingLogged();
}

TEST_F(TransactionTest, isInTransactionFromBeginToCommit)
{
    EXPECT_FALSE(db->isInTransaction());
    db->beginTransaction();
    EXPECT_TRUE(db->isInTransaction());
    db->commitTransaction();
    EXPECT_FALSE(db->isInTransaction());
}

TEST_F(TransactionTest, theStatementsAreBeginCommitAndRollback)
{
    close();
    const ConnectionProbe probe;
    open();
    const auto statementsOf = [&](const std::function<void()>& call) {
        const std::size_t before = probe.statements().size();
        call();
        return probe.statements().substr(before);
    };
    EXPECT_EQ(0U, statementsOf([&] { db->beginTransaction(); }).rfind("BEGIN\n", 0));
    EXPECT_EQ("COMMIT\n", statementsOf([&] { db->commitTransaction(); }));
    db->beginTransaction();
    EXPECT_EQ("ROLLBACK\n", statementsOf([&] { db->rollbackTransaction(); }));
}

TEST_F(TransactionTest, commitWithoutBeginThrowsWithoutALogLine)
{
    EXPECT_THROW(db->commitTransaction(), DBOperationException);
    expectNothingLogged();
}

TEST_F(TransactionTest, rollbackWithoutBeginThrowsWithoutALogLine)
{
    EXPECT_THROW(db->rollbackTransaction(), DBOperationException);
    expectNothingLogged();
}

TEST_F(TransactionTest, theyDoNotNest)
{
    db->beginTransaction();
    insert("/Music");
    EXPECT_THROW(db->beginTransaction(), DBOperationException);
    expectNothingLogged();
    EXPECT_TRUE(db->isInTransaction());
    db->commitTransaction();
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(TransactionTest, beginOwnsTheWriteLockBeforeTheFirstRead)
{
    db->beginTransaction();
    EXPECT_EQ(SQLITE_BUSY, foreignWrite("/Foreign"));
    db->commitTransaction();
    EXPECT_EQ(SQLITE_OK, foreignWrite("/Foreign"));
}

TEST_F(TransactionTest, nobodyGetsBetweenReadingAndWriting)
{
    db->beginTransaction();
    DBFolder music = folderAt("/Music");
    EXPECT_FALSE(db->folderExists(music));
    ASSERT_EQ(SQLITE_BUSY, foreignWrite("/Music")); // after his commit ours would be busy for ever
    EXPECT_TRUE(insert("/Music"));
    db->commitTransaction();
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(TransactionTest, beginLeavesNoTrace)
{
    insertFolderRow("/Music", -1);
    insertFileRow("/Music/a.mp3", 1);
    db->beginTransaction();
    db->commitTransaction();
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
    EXPECT_EQ("1 in 1 '/Music/a.mp3' live\n", dumpFiles());
    EXPECT_EQ("30\n", query("select last_updated_time from Folders"));
}

TEST_F(TransactionTest, aForeignCommitBetweenTwoStatementsIsSeenByTheSecond)
{
    EXPECT_TRUE(insert("/Music"));
    ASSERT_EQ(SQLITE_OK, foreignWrite("/Foreign"));
    DBFolder foreign = folderAt("/Foreign");
    EXPECT_TRUE(db->folderExists(foreign));
    EXPECT_TRUE(insert("/Pictures"));
    EXPECT_EQ("1 in -1 '/Music' live\n2 in -1 '/Foreign' live\n3 in -1 '/Pictures' live\n", dumpFolders());
}

TEST_F(TransactionTest, aForeignCommitBetweenTwoTransactionsIsSeenByTheSecond)
{
    db->beginTransaction();
    insert("/Music");
    db->commitTransaction();
    ASSERT_EQ(SQLITE_OK, foreignWrite("/Foreign"));
    db->beginTransaction();
    EXPECT_FALSE(insert("/Foreign"));
    EXPECT_TRUE(insert("/Pictures"));
    db->commitTransaction();
    EXPECT_EQ("1 in -1 '/Music' live\n2 in -1 '/Foreign' live\n3 in -1 '/Pictures' live\n", dumpFolders());
}

TEST_F(TransactionTest, aForeignSchemaChangeDoesNotHurtTheNextTransaction)
{
    insert("/Music");
    change("create table Foreigners(name text); vacuum");
    db->beginTransaction();
    EXPECT_FALSE(insert("/Music"));
    EXPECT_TRUE(insert("/Pictures"));
    db->commitTransaction();
    EXPECT_EQ("1 in -1 '/Music' live\n2 in -1 '/Pictures' live\n", dumpFolders());
    expectNothingLogged();
}

TEST_F(TransactionTest, aCatalogueWithoutTablesSaysSoAtTheFirstRealStatement)
{
    change("drop table Files; drop table Folders");
    EXPECT_TRUE(db->beginTransaction());
    expectNothingLogged();
    EXPECT_THROW(insert("/Music"), DBOperationException);
    EXPECT_TRUE(db->isInTransaction());
    EXPECT_TRUE(db->rollbackTransaction());
}

TEST_F(TransactionTest, aScopeThatWasNotCommittedIsRolledBack)
{
    {
        const Transaction transaction(*db);
        EXPECT_TRUE(db->isInTransaction());
        insert("/Music");
    }
    EXPECT_FALSE(db->isInTransaction());
    EXPECT_EQ("", dumpFolders());
}

TEST_F(TransactionTest, aScopeThatEndsWhileItTakesTheWriteLockDoesNotBegin)
{
    close();
    ConnectionProbe probe;
    open();
    probe.atTheStartOf("delete from folders where 0", [&] { probe.interrupt(); }); // as without memory
    EXPECT_THROW(const Transaction transaction(*db), DBOperationException);
    EXPECT_FALSE(db->isInTransaction());
    Transaction transaction(*db);
    insert("/Music");
    transaction.commit();
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(TransactionTest, whatCannotBeRolledBackAtOnceIsRolledBackBeforeTheNextStatement)
{
    close();
    ConnectionProbe probe;
    open();
    abandonOne(probe);
    EXPECT_TRUE(db->isInTransaction());
    EXPECT_THROW(insert("/Music/Rock"), DBOperationException); // it would share the fate of what was given up
    EXPECT_THROW(const Transaction next(*db), DBOperationException);
    probe.refuse(ConnectionProbe::nothing);
    EXPECT_TRUE(insert("/Videos"));
    EXPECT_FALSE(db->isInTransaction());
    EXPECT_EQ("1 in -1 '/Videos' live\n", dumpFolders());
    insertInScope("/Pictures");
    EXPECT_EQ("1 in -1 '/Videos' live\n2 in -1 '/Pictures' live\n", dumpFolders());
}

TEST_F(TransactionTest, whatCannotBeRolledBackAtOnceIsRolledBackByACheckpointAndByTheEnd)
{
    close();
    ConnectionProbe probe;
    open();
    abandonOne(probe);
    probe.refuse(ConnectionProbe::nothing);
    db->checkpoint();
    EXPECT_FALSE(db->isInTransaction());
    EXPECT_EQ(SQLITE_OK, foreignWrite("/Foreign"));

    abandonOne(probe);
    probe.refuse(ConnectionProbe::nothing);
    close();
    EXPECT_EQ("quarrow.db\n", dumpCatalogueFolder());
    EXPECT_EQ("1 in -1 '/Foreign' live\n", dumpFolders());
}

TEST_F(TransactionTest, aScopeThatCannotBeRolledBackAtOnceDoesNotHinderTheNext)
{
    close();
    ConnectionProbe probe;
    open();
    abandonOne(probe);
    probe.refuse(ConnectionProbe::nothing);
    insertInScope("/Pictures");
    EXPECT_EQ("1 in -1 '/Pictures' live\n", dumpFolders());
}

TEST_F(TransactionTest, aCommittedScopeStays)
{
    insertInScope("/Music");
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(TransactionTest, aScopeHasNothingToCommitAfterTheEndOfItsTransaction)
{
    Transaction transaction(*db);
    db->rollbackTransaction();
    EXPECT_THROW(transaction.requireOpen(), DBOperationException);
    EXPECT_THROW(transaction.commit(), DBOperationException);
    EXPECT_EQ("", dumpFolders());
    expectNothingLogged();
}

TEST_F(TransactionTest, ofTwoManagersOfOneCatalogueLetEachOtherWork)
{
    VolumeDBManager other;
    other.open(dbPath.c_str());
    const auto work = [](VolumeDBManager& manager, const std::string& prefix) {
        for (int number = 0; number < 20; ++number) {
            Transaction transaction(manager);
            DBFolder folder = folderAt("/" + prefix + std::to_string(number));
            manager.folderExists(folder);
            manager.insertFolder(folder, true);
            transaction.commit();
        }
    };
    std::future<void> otherEnd = std::async(std::launch::async, [&] { work(other, "b"); });
    work(*db, "a");
    EXPECT_EQ(std::future_status::ready, otherEnd.wait_for(std::chrono::seconds(60)));
    EXPECT_EQ("40\n", query("select count(*) from Folders"));
}
