#include "db/CatalogueTest.h"
#include "db/ConnectionProbe.h"
#include "db/DBOperationException.h"
#include "support/SyslogCapture.h"

#include <pthread.h>

namespace {

/// /v with a (x, y) and b, a file in each, and /w beside it.
class FolderTree : public CatalogueTest {
protected:
    FolderTree()
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
    ~FolderTree() override { close(); }

    bool deleteFolder(const std::string& path)
    {
        DBFolder folder = folderAt(path);
        return db->deleteFolder(folder);
    }

    ConnectionProbe probe;
};

} // namespace

TEST_F(FolderTree, itMarksTheFolderItsSubtreeAndTheirFiles)
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

TEST_F(FolderTree, whatItMarksWasWrittenJustNow)
{
    const std::string start = std::to_string(secondsNow());
    deleteFolder("/v/a");
    const std::string now = std::to_string(secondsNow());
    const std::string fresh = " where last_updated_time between " + start + " and " + now;
    EXPECT_EQ("2\n4\n5\n", query("select folder_id from Folders" + fresh + " order by 1"));
    EXPECT_EQ("2\n4\n5\n", query("select file_id from Files" + fresh + " order by 1"));
}

TEST_F(FolderTree, theRowsStayUntilAPurgeThatFindsThemOldEnough)
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

TEST_F(FolderTree, aFolderWithoutALiveRowIsNotDeletedAgain)
{
    change("update Folders set is_deleted = 1 where folder_id = 2");
    EXPECT_FALSE(deleteFolder("/v/a"));
    EXPECT_FALSE(deleteFolder("/nowhere"));
    EXPECT_EQ("4 in 2 '/v/a/x' live\n",
        query("select folder_id, 'in', parent_id, quote(path), 'live' from Folders"
              " where folder_id = 4 and is_deleted = 0"));
    EXPECT_EQ("0\n", query("select count(*) from Files where is_deleted = 1"));
}

TEST_F(FolderTree, theDescentStopsAtAFolderThatIsDeletedAlready)
{
    change("update Folders set is_deleted = 1 where folder_id = 2");
    deleteFolder("/v");
    EXPECT_EQ("1 in -1 '/v' deleted\n2 in 1 '/v/a' deleted\n3 in 1 '/v/b' deleted\n4 in 2 '/v/a/x' live\n"
              "5 in 2 '/v/a/y' live\n6 in -1 '/w' live\n",
        dumpFolders());
}

TEST_F(FolderTree, eachChildIsMarkedBeforeItsOwnChildrenAndTheFolderItselfLast)
{
    open(); // from here on watched
    probe.clear();
    deleteFolder("/v");
    const auto children = [](const std::string& id) {
        return "select a.folder_id from folders a where a.parent_id = " + id + " and a.is_deleted = 0\n";
    };
    const auto files = [](const std::string& id) {
        return "update files set is_deleted=1, last_updated_time=strftime('%s','now')  where folder_id = " + id + "\n";
    };
    const auto folder = [](const std::string& id) {
        return "update folders set is_deleted = 1, last_updated_time=strftime('%s','now')  where folder_id = " + id
            + "\n";
    };
    EXPECT_EQ("select folder_id, parent_id, path, is_deleted, last_updated_time, modified_time, created_time, name from"
              " folders where path='/v' and is_deleted=0\n"
            + children("1") + files("2") + folder("2") + children("2") + files("4") + folder("4") + children("4")
            + files("5") + folder("5") + children("5") + files("3") + folder("3") + children("3") + folder("1")
            + files("1"),
        probe.boundStatements());
}

TEST_F(FolderTree, theSubtreeCanBeMarkedWithoutTheFolder)
{
    db->updateDeletedFlagForFolders(2);
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n3 in 1 '/v/b' live\n4 in 2 '/v/a/x' deleted\n"
              "5 in 2 '/v/a/y' deleted\n6 in -1 '/w' live\n",
        dumpFolders());
    EXPECT_EQ("2 in 2 '/v/a/2.mp3' live\n",
        query("select file_id, 'in', folder_id, quote(path), 'live' from Files where file_id=2 and is_deleted=0"));
}

TEST_F(FolderTree, aTreeDeeperThanAWalkThreadsStackIsMarkedWhole)
{
    change("with recursive level(n) as (select 7 union all select n+1 from level where n < 10000)"
           " insert into Folders(folder_id, parent_id, path, name, created_time, modified_time, is_deleted,"
           " last_updated_time) select n, n - 1, '/w/' || n, n, 0, 0, 0, 0 from level");
    db->beginTransaction();
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 524288);
    pthread_t thread;
    const auto run = [](void* catalogue) -> void* {
        DBFolder folder = folderAt("/w");
        static_cast<VolumeDBManager*>(catalogue)->deleteFolder(folder);
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, &attributes, run, db.get()));
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    db->commitTransaction();
    EXPECT_EQ(
        "9995 6 10000\n", query("select count(*), min(folder_id), max(folder_id) from Folders where is_deleted = 1"));
}

TEST_F(FolderTree, aStopRequestEndsTheDescentOfATransaction)
{
    db->beginTransaction();
    db->requestStop();
    EXPECT_THROW(deleteFolder("/v"), DBOperationException);
    db->rollbackTransaction();
    EXPECT_EQ("0\n", query("select is_deleted from Folders where folder_id = 1"));
}

TEST_F(FolderTree, aStopInTheMiddleOfATransactionLeavesNothingThatALaterDeletionMisses)
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
