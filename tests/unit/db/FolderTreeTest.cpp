#include "db/CatalogueTest.h"
#include "db/ConnectionProbe.h"
#include "db/DBOperationException.h"
#include "support/SqlTexts.h"
#include "support/SyslogCapture.h"

namespace {

/// /v with a (x, y) and b, a file in each, and /w beside it.
class FolderTreeTest : public CatalogueTest {
protected:
    FolderTreeTest()
    {
        openNew();
        insertFolderRow("/v", -1);
        insertFolderRow("/v/a", 1);
        insertFolderRow("/v/b", 1);
        insertFolderRow("/v/a/x", 2);
        insertFolderRow("/v/a/y", 2);
        insertFolderRow("/w", -1);
        insertFileRow("/v/1.mp3", 1);
        insertFileRow("/v/a/2.mp3", 2);
        insertFileRow("/v/b/3.mp3", 3);
        insertFileRow("/v/a/x/4.mp3", 4);
        insertFileRow("/v/a/y/5.mp3", 5);
        insertFileRow("/w/6.mp3", 6);
    }
    ~FolderTreeTest() override { close(); }

    bool deleteFolder(const std::string& path)
    {
        DBFolder folder = folderAt(path);
        return db->deleteFolder(folder);
    }

    ConnectionProbe probe;
};

} // namespace

TEST_F(FolderTreeTest, itMarksTheFolderItsSubtreeAndTheirFiles)
{
    EXPECT_TRUE(deleteFolder("/v/a"));
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' deleted\n3 in 1 '/v/b' live\n4 in 2 '/v/a/x' deleted\n"
              "5 in 2 '/v/a/y' deleted\n6 in -1 '/w' live\n",
        dumpFolders());
    EXPECT_EQ("1 in 1 '/v/1.mp3' live\n2 in 2 '/v/a/2.mp3' deleted\n3 in 3 '/v/b/3.mp3' live\n"
              "4 in 4 '/v/a/x/4.mp3' deleted\n5 in 5 '/v/a/y/5.mp3' deleted\n6 in 6 '/w/6.mp3' live\n",
        dumpFiles());
    EXPECT_EQ(std::vector<LogLine> {}, loggedLines());
}

TEST_F(FolderTreeTest, whatItMarksWasWrittenJustNow)
{
    const std::string start = std::to_string(secondsNow());
    deleteFolder("/v/a");
    const std::string now = std::to_string(secondsNow());
    const std::string fresh = " where last_updated_time between " + start + " and " + now;
    EXPECT_EQ("2\n4\n5\n", query("select folder_id from Folders" + fresh + " order by 1"));
    EXPECT_EQ("2\n4\n5\n", query("select file_id from Files" + fresh + " order by 1"));
}

TEST_F(FolderTreeTest, theRowsStayUntilAPurgeThatFindsThemOldEnough)
{
    deleteFolder("/v");
    EXPECT_EQ("6\n", query("select count(*) from Folders"));
    change("update Folders set last_updated_time = last_updated_time - 2 where is_deleted = 1");
    change("update Files set last_updated_time = last_updated_time - 2 where is_deleted = 1");
    db->purgeDeletedFolders(0);
    db->purgeDeletedFiles(0);
    EXPECT_EQ("6 in -1 '/w' live\n", dumpFolders());
    EXPECT_EQ("6 in 6 '/w/6.mp3' live\n", dumpFiles());
}

TEST_F(FolderTreeTest, aFolderWithoutALiveRowIsNotDeletedAgain)
{
    change("update Folders set is_deleted = 1 where folder_id = 2");
    EXPECT_FALSE(deleteFolder("/v/a"));
    EXPECT_FALSE(deleteFolder("/nowhere"));
    EXPECT_EQ("4 in 2 '/v/a/x' live\n",
        query("select folder_id, 'in', parent_id, quote(path), 'live' from Folders"
              " where folder_id = 4 and is_deleted = 0"));
    EXPECT_EQ("0\n", query("select count(*) from Files where is_deleted = 1"));
}

TEST_F(FolderTreeTest, theDescentStopsAtAFolderThatIsDeletedAlready)
{
    change("update Folders set is_deleted = 1 where folder_id = 2");
    deleteFolder("/v");
    EXPECT_EQ("1 in -1 '/v' deleted\n2 in 1 '/v/a' deleted\n3 in 1 '/v/b' deleted\n4 in 2 '/v/a/x' live\n"
              "5 in 2 '/v/a/y' live\n6 in -1 '/w' live\n",
        dumpFolders());
}

TEST_F(FolderTreeTest, eachChildIsMarkedBeforeItsOwnChildrenAndTheFolderItselfLast)
{
    open(); // from here on watched
    probe.clear();
    deleteFolder("/v");
    EXPECT_EQ(sql::liveFolder("'/v'") + sql::liveIdsIn("1") + sql::markFilesIn("2") + sql::markFolder("2")
            + sql::liveIdsIn("2") + sql::markFilesIn("4") + sql::markFolder("4") + sql::liveIdsIn("4")
            + sql::markFilesIn("5") + sql::markFolder("5") + sql::liveIdsIn("5") + sql::markFilesIn("3")
            + sql::markFolder("3") + sql::liveIdsIn("3") + sql::markFolder("1") + sql::markFilesIn("1"),
        probe.boundStatements());
}

TEST_F(FolderTreeTest, theSubtreeCanBeMarkedWithoutTheFolder)
{
    db->updateDeletedFlagForFolders(2);
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n3 in 1 '/v/b' live\n4 in 2 '/v/a/x' deleted\n"
              "5 in 2 '/v/a/y' deleted\n6 in -1 '/w' live\n",
        dumpFolders());
    EXPECT_EQ("2 in 2 '/v/a/2.mp3' live\n",
        query("select file_id, 'in', folder_id, quote(path), 'live' from Files where file_id=2 and is_deleted=0"));
}

TEST_F(FolderTreeTest, aTreeDeeperThanAWalkThreadsStackIsMarkedWhole)
{
    insertDeepTree(6, "/w/");
    db->beginTransaction();
    runOnTheStackOfAWalk([this] { deleteFolder("/w"); });
    db->commitTransaction();
    EXPECT_EQ(
        "9995 6 10000\n", query("select count(*), min(folder_id), max(folder_id) from Folders where is_deleted = 1"));
}

TEST_F(FolderTreeTest, aStopRequestEndsTheDescentOfATransaction)
{
    db->beginTransaction();
    db->requestStop();
    EXPECT_THROW(deleteFolder("/v"), DBOperationException);
    db->rollbackTransaction();
    EXPECT_EQ("0\n", query("select is_deleted from Folders where folder_id = 1"));
}

TEST_F(FolderTreeTest, aStopInTheMiddleOfATransactionLeavesNothingThatALaterDeletionMisses)
{
    open();
    probe.atTheStartOf("update folders set is_deleted = 1", [this] { db->requestStop(); });
    db->beginTransaction();
    EXPECT_THROW(deleteFolder("/v"), DBOperationException);
    db->rollbackTransaction();
    open();
    deleteFolder("/v");
    EXPECT_EQ("6\n", query("select folder_id from Folders where is_deleted = 0"));
    EXPECT_EQ("6\n", query("select file_id from Files where is_deleted = 0"));
}
