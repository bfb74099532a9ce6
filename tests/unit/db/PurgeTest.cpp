#include "db/CatalogueTest.h"

#include <ctime>

namespace {

class PurgeTest : public CatalogueTest {
protected:
    PurgeTest() { openNew(); }
};

} // namespace

TEST_F(PurgeTest, ofFoldersRemovesMarkedRowsOlderThanTheThreshold)
{
    for (const char* const path : { "/live", "/old", "/young", "/future" })
        insertFolderRow(path, -1);
    change("update Folders set is_deleted = (path <> '/live')");
    change("update Folders set last_updated_time = strftime('%s','now') - 1000 where path in ('/live', '/old')");
    change("update Folders set last_updated_time = strftime('%s','now') - 100 where path = '/young'");
    change("update Folders set last_updated_time = strftime('%s','now') + 1000 where path = '/future'");
    EXPECT_EQ(0, db->purgeDeletedFolders(2000));
    EXPECT_EQ("4\n", query("select count(*) from Folders"));
    EXPECT_EQ(0, db->purgeDeletedFolders(500));
    EXPECT_EQ("1 in -1 '/live' live\n3 in -1 '/young' deleted\n4 in -1 '/future' deleted\n", dumpFolders());
    EXPECT_EQ(0, db->purgeDeletedFolders(0));
    EXPECT_EQ("1 in -1 '/live' live\n4 in -1 '/future' deleted\n", dumpFolders());
}

TEST_F(PurgeTest, ofFoldersKeepsWhatIsExactlyAsOldAsTheThreshold)
{
    time_t now = 0;
    do { // until a second did not end in between
        change("delete from Folders");
        insertFolderRow("/exact", -1);
        insertFolderRow("/older", -1);
        now = std::time(nullptr);
        change("update Folders set is_deleted = 1, last_updated_time = " + std::to_string(now - 50)
            + " - (path = '/older')");
        db->purgeDeletedFolders(50);
    } while (std::time(nullptr) != now);
    EXPECT_EQ("/exact\n", query("select path from Folders"));
}

TEST_F(PurgeTest, idsOfPurgedRowsAreNotUsedAgain)
{
    insertFolderRow("/Music", -1);
    change("update Folders set is_deleted = 1");
    db->purgeDeletedFolders(0);
    DBFolder music = folderAt("/Music");
    EXPECT_TRUE(db->insertFolder(music, true));
    EXPECT_EQ("2 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(PurgeTest, ofFilesRemovesMarkedRowsOlderThanTheThreshold)
{
    for (const char* const path : { "/live", "/old", "/young", "/future" })
        insertFileRow(path, 1);
    change("update Files set is_deleted = (path <> '/live')");
    change("update Files set last_updated_time = strftime('%s','now') - 1000 where path in ('/live', '/old')");
    change("update Files set last_updated_time = strftime('%s','now') - 100 where path = '/young'");
    change("update Files set last_updated_time = strftime('%s','now') + 1000 where path = '/future'");
    EXPECT_EQ(0, db->purgeDeletedFiles(2000));
    EXPECT_EQ("4\n", query("select count(*) from Files"));
    EXPECT_EQ(0, db->purgeDeletedFiles(500));
    EXPECT_EQ("1 in 1 '/live' live\n3 in 1 '/young' deleted\n4 in 1 '/future' deleted\n", dumpFiles());
    EXPECT_EQ(0, db->purgeDeletedFiles(0));
    EXPECT_EQ("1 in 1 '/live' live\n4 in 1 '/future' deleted\n", dumpFiles());
}

TEST_F(PurgeTest, ofFilesKeepsWhatIsExactlyAsOldAsTheThreshold)
{
    time_t now = 0;
    do { // until a second did not end in between
        change("delete from Files");
        insertFileRow("/exact", 1);
        insertFileRow("/older", 1);
        now = std::time(nullptr);
        change("update Files set is_deleted = 1, last_updated_time = " + std::to_string(now - 50)
            + " - (path = '/older')");
        db->purgeDeletedFiles(50);
    } while (std::time(nullptr) != now);
    EXPECT_EQ("/exact\n", query("select path from Files"));
}

TEST_F(PurgeTest, ofAFolderLeavesTheFilesToTheirOwnPurge)
{
    insertFolderRow("/Music", -1);
    insertFileRow("/Music/a.mp3", 1);
    change("update Folders set is_deleted = 1");
    db->purgeDeletedFolders(0);
    EXPECT_EQ("", dumpFolders());
    EXPECT_EQ("1 in 1 '/Music/a.mp3' live\n", dumpFiles()); // the schema's cascade is text only
}
