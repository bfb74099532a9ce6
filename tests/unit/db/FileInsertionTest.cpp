#include "db/CatalogueTest.h"
#include "db/DBOperationException.h"
#include "support/SyslogCapture.h"

#include <syslog.h>

namespace {

constexpr long long gibibyte = 1LL << 30;

class FileInsertionTest : public CatalogueTest {
protected:
    FileInsertionTest()
    {
        openNew();
        insertFolderRow("/v", -1);
        insertFolderRow("/v/a", 1);
    }

    std::string row(int id) const { return dumpFileRow(dbPath, id); }

    bool insert(const std::string& path)
    {
        DBFile file = fileAt(path, 2, 5, 100, 200);
        return db->insertFile(file);
    }
};

} // namespace

TEST_F(FileInsertionTest, aRowIsInsertedUnderTheIdOfItsFolder)
{
    const long long start = secondsNow();
    DBFile file = fileAt("/v/a/x.mp3", 2, 5 * gibibyte + 7, 100, 200);
    file.setFolder_id(77);
    file.setIs_deleted(true);
    EXPECT_TRUE(db->insertFile(file));
    EXPECT_EQ("2 /v/a/x.mp3 x.mp3 2 5368709127 100 200 0 0 0 0\n", row(1));
    EXPECT_EQ("1\n",
        query("select last_updated_time between " + std::to_string(start) + " and " + std::to_string(secondsNow())
            + " and typeof(last_updated_time) = 'integer' from Files"));
    EXPECT_EQ("-1 in 77 '/v/a/x.mp3' 'x.mp3' category 2 size 5368709127 modified 100 created 200", describe(file));
    EXPECT_EQ(std::vector<LogLine> {}, loggedLines());
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n", dumpFolders());
}

TEST_F(FileInsertionTest, theNameIsTheRecordsOwn)
{
    DBFile file = fileAt("/v/a/x.mp3");
    file.setName("other");
    EXPECT_TRUE(db->insertFile(file));
    EXPECT_EQ("2 /v/a/x.mp3 other -1 0 0 0 0 0 0 0\n", row(1));
}

TEST_F(FileInsertionTest, aLiveRowIsNeverInsertedTwice)
{
    insertFileRow("/v/a/x.mp3", 2);
    DBFile file = fileAt("/v/a/x.mp3", 3, 9, 100, 200);
    EXPECT_FALSE(db->insertFile(file));
    EXPECT_EQ("2 /v/a/x.mp3 x.mp3 2 5 10 20 0 0 0 0\n", row(1));
    EXPECT_EQ("1 in 2 '/v/a/x.mp3' 'x.mp3' category 2 size 5 modified 10 created 20", describe(file));
    EXPECT_EQ("1\n", query("select count(*) from Files"));
}

TEST_F(FileInsertionTest, aDeletedRowComesBackUnderItsIdInItsFolder)
{
    insertFileRow("/v/a/x.mp3", 9);
    change("update Files set is_deleted = 1");
    const long long start = secondsNow();
    DBFile file = fileAt("/v/a/x.mp3", 3, 9, 100, 200);
    EXPECT_TRUE(db->insertFile(file));
    EXPECT_EQ("2 /v/a/x.mp3 x.mp3 3 9 100 200 0 0 0 0\n", row(1));
    EXPECT_EQ("1\n", query("select last_updated_time >= " + std::to_string(start) + " from Files"));
    EXPECT_EQ(1, file.getFile_id());
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "Row for file /v/a/x.mp3 exists in the DB so updating it\n" } }),
        loggedLines());
}

TEST_F(FileInsertionTest, aDeletedRowComesBackWithTheLow32BitsOfTheSize)
{
    insertFileRow("/v/a/x.mp3", 2);
    for (const auto& [size, stored] : { std::pair { 2147483647LL, "2147483647\n" }, { 3 * gibibyte, "-1073741824\n" },
             { 4 * gibibyte + 7, "7\n" }, { 5 * gibibyte, "1073741824\n" } }) {
        change("update Files set is_deleted = 1");
        DBFile file = fileAt("/v/a/x.mp3", 3, size, 100, 200);
        EXPECT_TRUE(db->insertFile(file));
        EXPECT_EQ(stored, query("select size from Files")) << size;
    }
}

TEST_F(FileInsertionTest, everyFileBelowADotIsHidden)
{
    for (const char* const path : { "/v/a/.x", "/v/a/x.mp3", "/v/a/x.", "/v/.b/x", "/v/.b/c/x" })
        insert(path);
    EXPECT_EQ("/v/a/.x 1\n/v/a/x.mp3 0\n/v/a/x. 0\n/v/.b/x 1\n/v/.b/c/x 1\n",
        query("select path, is_hidden from Files order by file_id"));
}

TEST_F(FileInsertionTest, aMissingFolderIsMadeAndTheFileFiledUnderTheRootWhereTheClimbStopped)
{
    EXPECT_TRUE(insert("/v/a/b/x.mp3"));
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n3 in 2 '/v/a/b' live\n", dumpFolders());
    EXPECT_EQ("1 in 1 '/v/a/b/x.mp3' live\n", dumpFiles()); // not in 3
}

TEST_F(FileInsertionTest, aMissingFolderIsMadeAndTheFileFiledUnderNothingWhenTheClimbEndedWithIt)
{
    EXPECT_TRUE(insert("/v/c/x.mp3"));
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n3 in 1 '/v/c' live\n", dumpFolders());
    EXPECT_EQ("1 in 0 '/v/c/x.mp3' live\n", dumpFiles());
}

TEST_F(FileInsertionTest, aChainOfMissingFoldersIsMadeAsInsertFolderMakesIt)
{
    EXPECT_TRUE(insert("/v/c/d/e/x.mp3"));
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n3 in -1 '/v/c/d/e' live\n4 in 1 '/v/c' live\n", dumpFolders());
    EXPECT_EQ("1 in 0 '/v/c/d/e/x.mp3' live\n", dumpFiles());
    EXPECT_EQ("0 0\n", query("select modified_time, created_time from Folders where folder_id = 3"));
}

TEST_F(FileInsertionTest, aDeletedRowComesBackUnderTheIdThatTheMadeFolderLeft)
{
    insertFileRow("/v/a/b/x.mp3", 9);
    change("update Files set is_deleted = 1");
    EXPECT_TRUE(insert("/v/a/b/x.mp3"));
    EXPECT_EQ("1 in 1 '/v/a/b/x.mp3' live\n", dumpFiles());
}

TEST_F(FileInsertionTest, aDeletedFolderComesBackWithTheFile)
{
    change("update Folders set is_deleted = 1 where folder_id = 2");
    EXPECT_TRUE(insert("/v/a/x.mp3"));
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n", dumpFolders());
    EXPECT_EQ("1 in 2 '/v/a/x.mp3' live\n", dumpFiles());
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "Row for folder /v/a exists in the DB so updating it\n" } }),
        loggedLines());
}

TEST_F(FileInsertionTest, aFileAtTheTopBelongsToTheVolumesOwnRow)
{
    insertFolderRow("", -1);
    EXPECT_TRUE(insert("/x.mp3"));
    EXPECT_EQ("1 in 3 '/x.mp3' live\n", dumpFiles());
}

TEST_F(FileInsertionTest, aFileAtTheTopIsFiledUnderNothingWithoutARowOfTheVolume)
{
    EXPECT_TRUE(insert("/x.mp3"));
    EXPECT_EQ("1 in 0 '/x.mp3' live\n", dumpFiles());
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n", dumpFolders());
}

TEST_F(FileInsertionTest, aFolderMadeForAFileStaysWhenTheFileFails)
{
    change("create trigger refuse before insert on Files begin select raise(abort, 'no'); end");
    open();
    clearLog();
    EXPECT_THROW(insert("/v/c/x.mp3"), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "insertFile() failed, handleStatus: 1\n" } }), loggedLines());
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n3 in 1 '/v/c' live\n", dumpFolders());
    EXPECT_EQ("", dumpFiles());
}
