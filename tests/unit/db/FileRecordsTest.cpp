#include "db/CatalogueTest.h"

namespace {

constexpr long long gibibyte = 1LL << 30;

class FileRecordsTest : public CatalogueTest {
protected:
    FileRecordsTest()
    {
        openNew();
        insertFolderRow("/Music", -1);
    }

    std::string row(int id) const { return dumpFileRow(dbPath, id); }

    void markDeleted(int id) const { change("update Files set is_deleted = 1 where file_id = " + std::to_string(id)); }

    /// The ids of the files that were last written between then and now.
    std::string writtenSince(long long then) const
    {
        return query("select file_id from Files where typeof(last_updated_time) = 'integer' and last_updated_time"
                     " between "
            + std::to_string(then) + " and " + std::to_string(secondsNow()) + " order by file_id");
    }
};

} // namespace

TEST_F(FileRecordsTest, fileExistsFillsTheRecordFromTheLiveRow)
{
    insertFileRow("/Music/a.mp3", 1);
    DBFile file = fileAt("/Music/a.mp3");
    EXPECT_TRUE(db->fileExists(file));
    EXPECT_EQ("1 in 1 '/Music/a.mp3' 'a.mp3' category 2 size 5 modified 10 created 20", describe(file));
    EXPECT_EQ(30, file.getLast_updated_time());
}

TEST_F(FileRecordsTest, fileExistsKnowsNoDeletedRow)
{
    insertFileRow("/Music/a.mp3", 1);
    markDeleted(1);
    DBFile file = fileAt("/Music/a.mp3", 3, 6, 7, 8);
    EXPECT_FALSE(db->fileExists(file));
    EXPECT_EQ("-1 in -1 '/Music/a.mp3' 'a.mp3' category 3 size 6 modified 7 created 8", describe(file));
}

TEST_F(FileRecordsTest, aFileIsLookedUpByPathAndName)
{
    insertFileRow("/Music/a.mp3", 1);
    DBFile otherName = fileAt("/Music/a.mp3");
    otherName.setName("b.mp3");
    EXPECT_FALSE(db->fileExists(otherName));
    EXPECT_FALSE(db->fileRowExists(otherName));
    DBFile otherPath = fileAt("/Music/a.mp3");
    otherPath.setPath("/a.mp3");
    EXPECT_FALSE(db->fileExists(otherPath));
    EXPECT_FALSE(db->fileRowExists(otherPath));
}

TEST_F(FileRecordsTest, namesAreBytes)
{
    const std::string path = "/Music/\xff\xc0 'quoted' \"too\"; --\n.mp3";
    DBFile file = fileAt(path, 2, 5, 10, 20);
    EXPECT_TRUE(db->insertFile(file));
    DBFile found = fileAt(path);
    EXPECT_TRUE(db->fileExists(found));
    EXPECT_EQ(path, found.getPath());
}

TEST_F(FileRecordsTest, fileExistsCutsSizesTo32Bits)
{
    insertFileRow("/Music/a.mp3", 1);
    for (const auto& [stored, read] : { std::pair { 2147483647LL, 2147483647LL }, { 2147483648LL, -2147483648LL },
             { 3 * gibibyte, -gibibyte }, { 4 * gibibyte + 7, 7LL }, { 5 * gibibyte, gibibyte } }) {
        change("update Files set size = " + std::to_string(stored));
        DBFile file = fileAt("/Music/a.mp3");
        EXPECT_TRUE(db->fileExists(file));
        EXPECT_EQ(read, file.getSize()) << stored;
    }
}

TEST_F(FileRecordsTest, fileRowExistsFindsDeletedRowsAndCopiesIdsPathAndNameOnly)
{
    insertFileRow("/Music/a.mp3", 1);
    markDeleted(1);
    DBFile file = fileAt("/Music/a.mp3", 3, 6, 7, 8);
    EXPECT_TRUE(db->fileRowExists(file));
    EXPECT_EQ("1 in 1 '/Music/a.mp3' 'a.mp3' category 3 size 6 modified 7 created 8", describe(file));
    EXPECT_EQ(0, file.getLast_updated_time());
}

TEST_F(FileRecordsTest, updateFileWritesTheRowWithTheIdAndLeavesPathAndFolder)
{
    insertFileRow("/Music/a.mp3", 1);
    insertFileRow("/Music/b.mp3", 1);
    const long long start = secondsNow();
    DBFile file = fileAt("/elsewhere/c.avi", 1, 5 * gibibyte, 100, 200);
    file.setFile_id(2);
    file.setFolder_id(9);
    EXPECT_TRUE(db->updateFile(file));
    EXPECT_EQ("1 /Music/a.mp3 a.mp3 2 5 10 20 0 0 0 0\n", row(1));
    EXPECT_EQ("1 /Music/b.mp3 c.avi 1 5368709120 100 200 0 0 0 0\n", row(2));
    EXPECT_EQ("2\n", writtenSince(start));
}

TEST_F(FileRecordsTest, updateFileIsTrueWithoutARowAndLeavesADeletedOneDeleted)
{
    DBFile file = fileAt("/Music/a.mp3", 2, 9, 100, 200);
    file.setFile_id(1);
    EXPECT_TRUE(db->updateFile(file));
    insertFileRow("/Music/a.mp3", 1);
    markDeleted(1);
    EXPECT_TRUE(db->updateFile(file));
    EXPECT_EQ("1 /Music/a.mp3 a.mp3 2 9 100 200 1 0 0 0\n", row(1));
}

TEST_F(FileRecordsTest, deleteFileMarksTheRowWithTheIdAndSaysSoOnStandardOutput)
{
    insertFileRow("/Music/a.mp3", 1);
    insertFileRow("/Music/b.mp3", 1);
    const long long start = secondsNow();
    DBFile file = fileAt("/elsewhere");
    file.setFile_id(2);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(db->deleteFile(file));
    EXPECT_EQ("Deleting file 2\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ("1 in 1 '/Music/a.mp3' live\n2 in 1 '/Music/b.mp3' deleted\n", dumpFiles());
    EXPECT_EQ("2\n", writtenSince(start));
}

TEST_F(FileRecordsTest, deleteFileSaysSoWithoutARowToo)
{
    DBFile file = fileAt("/Music/a.mp3");
    testing::internal::CaptureStdout();
    EXPECT_TRUE(db->deleteFile(file));
    EXPECT_EQ("Deleting file -1\n", testing::internal::GetCapturedStdout());
}

TEST_F(FileRecordsTest, deleteFilesFromFolderMarksTheFilesOfThatFolderAlone)
{
    insertFileRow("/Music/a.mp3", 1);
    insertFileRow("/Music/b.mp3", 1);
    insertFileRow("/Music/Rock/c.mp3", 2);
    const long long start = secondsNow();
    testing::internal::CaptureStdout();
    EXPECT_TRUE(db->deleteFilesFromFolder(1));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(
        "1 in 1 '/Music/a.mp3' deleted\n2 in 1 '/Music/b.mp3' deleted\n3 in 2 '/Music/Rock/c.mp3' live\n", dumpFiles());
    EXPECT_EQ("1\n2\n", writtenSince(start));
}

TEST_F(FileRecordsTest, theFilesOfAFolderAreTheLiveOnesByItsIdWithoutTheirOwn)
{
    insertFileRow("/Music/a.mp3", 1);
    insertFileRow("/Music/b.mp3", 1);
    insertFileRow("/Music/Rock/c.mp3", 2);
    insertFileRow("/Music/d.mp3", 1);
    markDeleted(2);
    change("update Files set size = 5368709120 where file_id = 4");
    DBFolder folder = folderAt("/the path does not matter");
    folder.setFolder_id(1);
    std::string files;
    for (const DBFile& file : db->getFileListByFolder(folder)) {
        files += describe(file) + " updated " + std::to_string(file.getLast_updated_time()) + "\n";
        EXPECT_FALSE(file.getIs_deleted());
    }
    EXPECT_EQ("-1 in -1 '/Music/a.mp3' 'a.mp3' category 2 size 5 modified 10 created 20 updated 0\n"
              "-1 in -1 '/Music/d.mp3' 'd.mp3' category 2 size 5368709120 modified 10 created 20 updated 0\n",
        files);
    std::string simpleFiles;
    for (const SimpleDBFile& file : db->getSimpleFileListByFolder(folder))
        simpleFiles += file.getPath() + " " + file.getName() + " " + std::to_string(file.getModifiedTime()) + " "
            + std::to_string(file.getCreatedTime()) + "\n";
    EXPECT_EQ("/Music/a.mp3 a.mp3 10 20\n/Music/d.mp3 d.mp3 10 20\n", simpleFiles);
}

TEST_F(FileRecordsTest, aFolderWithoutFilesHasEmptyLists)
{
    DBFolder folder = folderAt("/Music");
    folder.setFolder_id(1);
    EXPECT_TRUE(db->getFileListByFolder(folder).empty());
    EXPECT_TRUE(db->getSimpleFileListByFolder(folder).empty());
}

TEST_F(FileRecordsTest, aNullTextReadsAsTheEmptyString)
{
    change("drop table Files; create table Files(file_id integer primary key, folder_id, path, name, category, size,"
           " modified_time, created_time, is_deleted, last_updated_time);"
           "insert into Files values(1, 1, null, null, 2, 5, 10, 20, 0, 30)");
    open(); // the tables are others now
    DBFolder folder = folderAt("/Music");
    folder.setFolder_id(1);
    const std::list<DBFile> files = db->getFileListByFolder(folder);
    ASSERT_EQ(1U, files.size());
    EXPECT_EQ("-1 in -1 '' '' category 2 size 5 modified 10 created 20", describe(files.front()));
    const std::list<SimpleDBFile> simpleFiles = db->getSimpleFileListByFolder(folder);
    ASSERT_EQ(1U, simpleFiles.size());
    EXPECT_EQ("", simpleFiles.front().getPath() + simpleFiles.front().getName());
}
