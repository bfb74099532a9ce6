#include "db/CatalogueTest.h"
#include "support/SyslogCapture.h"

#include <syslog.h>

namespace {

class FolderRecordsTest : public CatalogueTest {
protected:
    FolderRecordsTest() { openNew(); }

    std::string times(int id) const
    {
        return query("select modified_time, created_time from Folders where folder_id = " + std::to_string(id));
    }

    void markDeleted(int id) const
    {
        change("update Folders set is_deleted = 1 where folder_id = " + std::to_string(id));
    }

    /// How many folders were last written between then and now.
    std::string countWrittenSince(long long then) const
    {
        return query("select count(*) from Folders where typeof(last_updated_time) = 'integer' and last_updated_time"
                     " between "
            + std::to_string(then) + " and " + std::to_string(secondsNow()));
    }
};

} // namespace

TEST_F(FolderRecordsTest, folderExistsFillsTheRecordFromTheLiveRow)
{
    insertFolderRow("/Music", -1);
    insertFolderRow("/Music/Rock", 1);
    DBFolder rock = folderAt("/Music/Rock");
    rock.setIs_deleted(true);
    EXPECT_TRUE(db->folderExists(rock));
    EXPECT_EQ("2 in 1 '/Music/Rock' 'Rock' modified 10 created 20 live", describe(rock));
    EXPECT_EQ(30, rock.getLast_updated_time());
}

TEST_F(FolderRecordsTest, folderExistsKnowsNoDeletedRow)
{
    insertFolderRow("/Music", -1);
    markDeleted(1);
    DBFolder music = folderAt("/Music", 7, 8);
    EXPECT_FALSE(db->folderExists(music));
    EXPECT_EQ("0 in 0 '/Music' '' modified 7 created 8 live", describe(music));
}

TEST_F(FolderRecordsTest, folderExistsComparesWholePathsByteByByte)
{
    insertFolderRow("/Music", -1);
    for (const char* const path : { "/music", "/Musi", "/Music/", "/Music%", "" }) {
        DBFolder folder = folderAt(path);
        EXPECT_FALSE(db->folderExists(folder)) << path;
    }
}

TEST_F(FolderRecordsTest, namesAreBytes)
{
    DBFolder odd = folderAt("/\xff\xfe 'quoted' \"too\";--\n");
    EXPECT_TRUE(db->insertFolder(odd, true));
    DBFolder found = folderAt("/\xff\xfe 'quoted' \"too\";--\n");
    EXPECT_TRUE(db->folderExists(found));
    EXPECT_EQ("\xff\xfe 'quoted' \"too\";--\n", found.getName());
}

TEST_F(FolderRecordsTest, aNullTextReadsAsTheEmptyString)
{
    change("drop table Folders; create table Folders(folder_id integer primary key, parent_id, path, is_deleted,"
           " last_updated_time, modified_time, created_time, name);"
           "insert into Folders values(4, 1, null, 0, 30, 10, 20, null)");
    open(); // the tables are others now
    DBFolder folder;
    folder.resetFolder();
    folder.setFolder_id(4);
    folder.setName("left over");
    folder.setPath("left over");
    EXPECT_TRUE(db->findFolderByFolderId(folder));
    EXPECT_EQ("4 in 1 '' '' modified 10 created 20 live", describe(folder));
}

TEST_F(FolderRecordsTest, folderRowExistsFindsDeletedRowsAndCopiesNoTimes)
{
    insertFolderRow("/Music", -1);
    insertFolderRow("/Music/Rock", 1);
    markDeleted(2);
    DBFolder rock = folderAt("/Music/Rock", 7, 8);
    rock.setIs_deleted(true);
    EXPECT_TRUE(db->folderRowExists(rock));
    EXPECT_EQ("2 in 1 '/Music/Rock' 'Rock' modified 7 created 8 live", describe(rock)); // "live" on purpose
    EXPECT_EQ(0, rock.getLast_updated_time());
}

TEST_F(FolderRecordsTest, folderRowExistsLeavesTheRecordAloneWithoutARow)
{
    DBFolder rock = folderAt("/Music/Rock", 7, 8);
    rock.setIs_deleted(true);
    EXPECT_FALSE(db->folderRowExists(rock));
    EXPECT_EQ("0 in 0 '/Music/Rock' '' modified 7 created 8 deleted", describe(rock));
}

TEST_F(FolderRecordsTest, findRootFolderKnowsLiveRootsOnly)
{
    insertFolderRow("/Music", -1);
    insertFolderRow("/Music/Rock", 1);
    insertFolderRow("/Pictures", -1);
    markDeleted(3);
    EXPECT_EQ("/Music", db->findRootFolder("/Music"));
    EXPECT_EQ("", db->findRootFolder("/Music/Rock"));
    EXPECT_EQ("", db->findRootFolder("/Pictures"));
    EXPECT_EQ("", db->findRootFolder("/Nowhere"));
}

TEST_F(FolderRecordsTest, findFolderByFolderIdFillsTheRecordFromTheLiveRow)
{
    insertFolderRow("/Music", -1);
    insertFolderRow("/Music/Rock", 1);
    insertFolderRow("/Music/Jazz", 1);
    markDeleted(3);
    DBFolder folder = folderAt("");
    folder.setFolder_id(2);
    EXPECT_TRUE(db->findFolderByFolderId(folder));
    EXPECT_EQ("2 in 1 '/Music/Rock' 'Rock' modified 10 created 20 live", describe(folder));
    EXPECT_EQ(30, folder.getLast_updated_time());
    for (const int missing : { 3, 4, -1 }) {
        folder.setFolder_id(missing);
        EXPECT_FALSE(db->findFolderByFolderId(folder)) << missing;
    }
}

TEST_F(FolderRecordsTest, theChildrenAreTheLiveOnesByTheId)
{
    insertFolderRow("/Music", -1);
    insertFolderRow("/Music/Rock", 1);
    insertFolderRow("/Music/Jazz", 1);
    insertFolderRow("/Music/Rock/Live", 2);
    insertFolderRow("/Music/Folk", 1);
    markDeleted(3);
    DBFolder music = folderAt("/the path does not matter");
    music.setFolder_id(1);
    std::string children;
    for (const DBFolder& child : db->getFolderListByFolder(music))
        children += describe(child) + " updated " + std::to_string(child.getLast_updated_time()) + "\n";
    EXPECT_EQ("2 in 1 '/Music/Rock' 'Rock' modified 10 created 20 live updated 30\n"
              "5 in 1 '/Music/Folk' 'Folk' modified 10 created 20 live updated 30\n",
        children);
    EXPECT_EQ((std::vector<int> { 2, 5 }), db->getListOfFolders(1));
    EXPECT_EQ((std::vector<int> {}), db->getListOfFolders(4));
    EXPECT_EQ((std::vector<int> { 1 }), db->getListOfFolders(-1));
}

TEST_F(FolderRecordsTest, updateFolderWritesTheTimesOfTheRowWithTheId)
{
    insertFolderRow("/Music", -1);
    insertFolderRow("/Pictures", -1);
    const long long start = secondsNow();
    DBFolder folder = folderAt("/Elsewhere", 100, 200);
    folder.setName("other");
    folder.setParent_id(9);
    folder.setFolder_id(2);
    EXPECT_TRUE(db->updateFolder(folder));
    EXPECT_EQ("100 200\n", times(2));
    EXPECT_EQ("10 20\n", times(1));
    EXPECT_EQ("1\n", countWrittenSince(start));
    EXPECT_EQ("1 in -1 '/Music' live\n2 in -1 '/Pictures' live\n", dumpFolders());
}

TEST_F(FolderRecordsTest, updateFolderIsTrueWithoutARow)
{
    DBFolder folder = folderAt("/Music");
    folder.setFolder_id(77);
    EXPECT_TRUE(db->updateFolder(folder));
}

TEST_F(FolderRecordsTest, deleteFolderRecordMarksThatRowAlone)
{
    insertFolderRow("/Music", -1);
    insertFolderRow("/Music/Rock", 1);
    insertFileRow("/Music/a.mp3", 1);
    const long long start = secondsNow();
    EXPECT_TRUE(db->deleteFolderRecord(1));
    EXPECT_EQ("1 in -1 '/Music' deleted\n2 in 1 '/Music/Rock' live\n", dumpFolders());
    EXPECT_EQ("1 in 1 '/Music/a.mp3' live\n", dumpFiles());
    EXPECT_EQ("1\n", countWrittenSince(start));
}
