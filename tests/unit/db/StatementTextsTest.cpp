#include "db/CatalogueTest.h"
#include "db/ConnectionProbe.h"
#include "db/DBOperationException.h"
#include "support/SqlTexts.h"
#include "support/SyslogCapture.h"

#include <sqlite3.h>
#include <syslog.h>

namespace {

const std::string liveFolder = sql::liveFolder("?");
const std::string anyFolder = sql::anyFolder("?");
const std::string liveFile = sql::liveFile("?", "?");
const std::string anyFile = sql::anyFile("?", "?");

/// Which statements SQLite is given, and what becomes of a bind that fails.
class StatementTextsTest : public CatalogueTest {
protected:
    StatementTextsTest()
    {
        openNew();
        insertFolderRow("/v", -1);
        insertFileRow("/v/x.mp3", 1);
        probe.clear();
    }
    ~StatementTextsTest() override { close(); }

    std::string statementsOf(const std::function<void()>& call)
    {
        probe.clear();
        testing::internal::CaptureStdout();
        call();
        testing::internal::GetCapturedStdout();
        return probe.statements();
    }
    std::string boundStatementsOf(const std::function<void()>& call)
    {
        statementsOf(call);
        return probe.boundStatements();
    }

    /// The lines that are errors.
    static std::vector<LogLine> errors()
    {
        std::vector<LogLine> lines;
        for (const LogLine& line : loggedLines())
            if (line.priority != LOG_INFO)
                lines.push_back(line);
        return lines;
    }

    ConnectionProbe probe;
    DBFolder folder = folderAt("/v", 100, 200);
    DBFile file = fileAt("/v/x.mp3", 2, 5368709127, 100, 200);
};

} // namespace

TEST_F(StatementTextsTest, readFolders)
{
    folder.setFolder_id(1);
    EXPECT_EQ(liveFolder, statementsOf([&] { db->folderExists(folder); }));
    EXPECT_EQ(anyFolder, statementsOf([&] { db->folderRowExists(folder); }));
    EXPECT_EQ("select path from  folders  where  path=?  and parent_id=-1  and is_deleted=0\n",
        statementsOf([&] { db->findRootFolder("/v"); }));
    EXPECT_EQ(
        sql::selectFolder("folder_id=? and is_deleted=0"), statementsOf([&] { db->findFolderByFolderId(folder); }));
    EXPECT_EQ(sql::liveFoldersIn("?"), statementsOf([&] { db->getFolderListByFolder(folder); }));
    EXPECT_EQ(sql::liveIdsIn("?"), statementsOf([&] { db->getListOfFolders(1); }));
}

TEST_F(StatementTextsTest, writeFolders)
{
    folder.setFolder_id(1);
    EXPECT_EQ("update folders set last_updated_time=strftime('%s','now'), modified_time=?, created_time=? where"
              " folder_id = ?\n",
        statementsOf([&] { db->updateFolder(folder); }));
    EXPECT_EQ(sql::markFolder("?"), statementsOf([&] { db->deleteFolderRecord(1); }));
    EXPECT_EQ("delete from folders where is_deleted=1 and last_updated_time < ?\n",
        statementsOf([&] { db->purgeDeletedFolders(100); }));
}

TEST_F(StatementTextsTest, insertAFolder)
{
    DBFolder rock = folderAt("/v/.rock", 100, 200);
    rock.setParent_id(1);
    EXPECT_EQ(anyFolder + sql::insertIntoFolders("?,?,?,?,?,strftime('%s','now'),?,?"),
        statementsOf([&] { db->insertIndividualFolder(rock); }));
    EXPECT_EQ(anyFolder
            + "update folders   set is_deleted = 0, modified_time=?, last_updated_time=strftime('%s', 'now') ,"
              " created_time=?, parent_id=?  where folder_id=?\n",
        statementsOf([&] { db->insertIndividualFolder(rock); }));
}

TEST_F(StatementTextsTest, bindAFoldersValues)
{
    DBFolder rock = folderAt("/v/.rock", 100, 200);
    rock.setParent_id(1);
    EXPECT_NE(std::string::npos, boundStatementsOf([&] {
        db->insertIndividualFolder(rock);
    }).find("values(1,'/v/.rock','.rock',0,100,strftime('%s','now'),200,1)\n"));
    EXPECT_NE(std::string::npos,
        boundStatementsOf([&] { db->insertIndividualFolder(rock); })
            .find("modified_time=100, last_updated_time=strftime('%s', 'now') , created_time=200, parent_id=1  where"
                  " folder_id=2\n"));
}

TEST_F(StatementTextsTest, readFiles)
{
    folder.setFolder_id(1);
    EXPECT_EQ(liveFile, statementsOf([&] { db->fileExists(file); }));
    EXPECT_EQ(anyFile, statementsOf([&] { db->fileRowExists(file); }));
    EXPECT_EQ(sql::liveFilesIn("?"), statementsOf([&] { db->getFileListByFolder(folder); }));
    EXPECT_EQ(sql::listFiles + std::string("  where  folder_id=?  and is_deleted=0 \n"),
        statementsOf([&] { db->getSimpleFileListByFolder(folder); }));
}

TEST_F(StatementTextsTest, writeFiles)
{
    EXPECT_EQ("update files set name=?, category=?, size=?, last_updated_time=strftime('%s','now'), modified_time=?,"
              " created_time=? where file_id = ?\n",
        statementsOf([&] { db->updateFile(file); }));
    EXPECT_EQ(sql::markFile("?"), statementsOf([&] { db->deleteFile(file); }));
    EXPECT_EQ(sql::markFilesIn("?"), statementsOf([&] { db->deleteFilesFromFolder(1); }));
    EXPECT_EQ("delete from files where is_deleted = 1 and last_updated_time < ?\n",
        statementsOf([&] { db->purgeDeletedFiles(100); }));
}

TEST_F(StatementTextsTest, insertAFile)
{
    DBFile hidden = fileAt("/v/.y", 3, 5368709127, 100, 200);
    const std::string look = liveFile + liveFolder + anyFile;
    EXPECT_EQ(look + sql::insertIntoFiles("?,?,?,?,strftime('%s','now'), 0, ?,?,?,?"),
        statementsOf([&] { db->insertFile(hidden); }));
    change("update Files set is_deleted = 1");
    EXPECT_EQ(look
            + "update files set folder_id=?, size=?, last_updated_time=strftime('%s', 'now'), is_deleted=0,"
              " modified_time=?, created_time=?, category=? where file_id=?\n",
        statementsOf([&] { db->insertFile(hidden); }));
}

TEST_F(StatementTextsTest, bindAFilesValues)
{
    DBFile hidden = fileAt("/v/.y", 3, 5368709127, 100, 200);
    EXPECT_NE(std::string::npos, boundStatementsOf([&] {
        db->insertFile(hidden);
    }).find("values(1,'.y','/v/.y',5368709127,strftime('%s','now'), 0, 100,200,3,1)\n"));
    hidden.setFile_id(2);
    EXPECT_EQ("update files set name='.y', category=3, size=5368709127, last_updated_time=strftime('%s','now'),"
              " modified_time=100, created_time=200 where file_id = 2\n",
        boundStatementsOf([&] { db->updateFile(hidden); }));
}

TEST_F(StatementTextsTest, aFailedBindOfALookUpIsItsStatus)
{
    probe.refuseTextsOver(100, SQLITE_SELECT);
    DBFolder longPath = folderAt("/" + std::string(200, 'x'));
    EXPECT_EQ("", statementsOf([&] { EXPECT_TRUE(throwsOperationException([&] { db->folderExists(longPath); })); }));
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "folderExists() failed, handleStatus: 18\n" } }), errors());
}

TEST_F(StatementTextsTest, theFirstFailedBindEndsAnUpdate)
{
    probe.refuseTextsOver(100, SQLITE_UPDATE);
    file.setFile_id(1);
    file.setName(std::string(200, 'x')); // bound first; five good binds follow
    EXPECT_EQ("", statementsOf([&] { EXPECT_TRUE(throwsOperationException([&] { db->updateFile(file); })); }));
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "updateFile() failed, handleStatus: 18\n" } }), errors());
}

// The inserts look at their last bind alone: what failed before it is NULL and meets the columns' constraints.

TEST_F(StatementTextsTest, anInsertOfAFileMindsOnlyItsLastBind)
{
    probe.refuseTextsOver(100, SQLITE_INSERT); // the look-ups before it still bind
    DBFile longName = fileAt("/v/y.mp3");
    longName.setName(std::string(200, 'x'));
    EXPECT_THROW(db->insertFile(longName), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "insertFile() failed, handleStatus: 1\n" } }), errors());
}

TEST_F(StatementTextsTest, anInsertOfAFolderMindsOnlyItsLastBind)
{
    probe.refuseTextsOver(100, SQLITE_INSERT);
    DBFolder longPath = folderAt("/" + std::string(200, 'x'));
    EXPECT_THROW(db->insertIndividualFolder(longPath), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "insertIndividualFolder() failed, handleStatus: 1\n" } }), errors());
}

TEST_F(StatementTextsTest, anInsertWhoseLastBindIsGoodSucceedsWhereNullIsAllowed)
{
    change("drop table Files; create table Files(file_id integer primary key, folder_id, path, name, category, size,"
           " modified_time, created_time, is_deleted, is_hidden, last_updated_time)");
    openNew();
    probe.refuseTextsOver(100, SQLITE_INSERT);
    DBFile longName = fileAt("/v/y.mp3", 2, 5, 100, 200);
    longName.setName(std::string(200, 'x'));
    EXPECT_TRUE(db->insertFile(longName));
    EXPECT_EQ("1 /v/y.mp3 NULL 2 5 100 200 0\n",
        query("select folder_id, path, name, category, size, modified_time, created_time, is_hidden from Files"));
    EXPECT_EQ(std::vector<LogLine> {}, errors());
}
