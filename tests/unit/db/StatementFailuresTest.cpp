#include "db/CatalogueTest.h"
#include "db/DBOperationException.h"
#include "support/SyslogCapture.h"

#include <syslog.h>

namespace {

struct Operation {
    const char* name;
    const char* failure;                       ///< the log line, less the status
    std::function<void(VolumeDBManager&)> run; ///< on /v (1) with /v/x.mp3 (1), both live
};

void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

DBFolder rootFolder()
{
    DBFolder folder = folderAt("/v");
    folder.setFolder_id(1);
    return folder;
}

DBFile musicFile()
{
    DBFile file = fileAt("/v/x.mp3", 2, 5, 10, 20);
    file.setFile_id(1);
    return file;
}

/// The operation on a record of its own.
template <typename Result>
std::function<void(VolumeDBManager&)> onFolder(Result (VolumeDBManager::*operation)(DBFolder&))
{
    return [operation](VolumeDBManager& db) {
        DBFolder folder = rootFolder();
        (db.*operation)(folder);
    };
}

template <typename Result>
std::function<void(VolumeDBManager&)> onFile(Result (VolumeDBManager::*operation)(DBFile&))
{
    return [operation](VolumeDBManager& db) {
        DBFile file = musicFile();
        (db.*operation)(file);
    };
}

void insertOtherFolder(VolumeDBManager& db)
{
    DBFolder folder = folderAt("/w");
    db.insertIndividualFolder(folder);
}

void insertOtherFile(VolumeDBManager& db)
{
    DBFile file = fileAt("/v/y.mp3", 2, 5, 10, 20);
    db.insertFile(file);
}

void parentOf(VolumeDBManager& db)
{
    std::stack<std::string> paths;
    paths.push("/v");
    db.findParentIdForFolderPath(&paths);
}

using Catalogue = VolumeDBManager;
const char* const failedFolderExists = "folderExists() failed, handleStatus: ";
const char* const failedFileExists = "fileExists() failed, handleStatus: ";
const char* const failedFileList = "getSimpleFileListByFolder() failed, handleStatus: ";

// Several share a text with a sibling, on purpose: it is the one that log readers know.
const Operation readers[] = {
    { "folderExists", failedFolderExists, onFolder(&Catalogue::folderExists) },
    { "folderRowExists", failedFolderExists, onFolder(&Catalogue::folderRowExists) },
    { "findRootFolder", "findRootFolder() failed, handleStatus: ", [](Catalogue& db) { db.findRootFolder("/v"); } },
    { "findFolderByFolderId",
        "findFolderByFolderId() failed, handleStatus: ", onFolder(&Catalogue::findFolderByFolderId) },
    { "getFolderListByFolder",
        "getFolderListByFolder() failed, handleStatus: ", onFolder(&Catalogue::getFolderListByFolder) },
    { "getListOfFolders", "getListOfFolders() failed, handleStatus: ", [](Catalogue& db) { db.getListOfFolders(1); } },
    { "insertIndividualFolder", failedFolderExists, insertOtherFolder },
    { "insertFolder", failedFolderExists,
        [](Catalogue& db) {
            DBFolder folder = folderAt("/v/a");
            db.insertFolder(folder, false);
        } },
    { "findParentIdForFolderPath", failedFolderExists, parentOf },
    { "deleteFolder", failedFolderExists, onFolder(&Catalogue::deleteFolder) },
    { "updateDeletedFlagForFolders",
        "getListOfFolders() failed, handleStatus: ", [](Catalogue& db) { db.updateDeletedFlagForFolders(1); } },
    { "fileExists", failedFileExists, onFile(&Catalogue::fileExists) },
    { "fileRowExists", failedFileExists, onFile(&Catalogue::fileRowExists) },
    { "insertFile", failedFileExists, insertOtherFile },
    { "getFileListByFolder", failedFileList, onFolder(&Catalogue::getFileListByFolder) },
    { "getSimpleFileListByFolder", failedFileList, onFolder(&Catalogue::getSimpleFileListByFolder) },
};

const Operation writers[] = {
    { "updateFolder", "updateFolder() failed, handleStatus: ", onFolder(&Catalogue::updateFolder) },
    { "deleteFolderRecord",
        "deleteFolderRecord() failed, handleStatus: ", [](Catalogue& db) { db.deleteFolderRecord(1); } },
    { "purgeDeletedFolders",
        "purgeDeletedFolders() failed, handleStatus: ", [](Catalogue& db) { db.purgeDeletedFolders(-100); } },
    { "updateFile", "updateFile() failed, handleStatus: ", onFile(&Catalogue::updateFile) },
    { "deleteFile", "deleteFile() failed, handleStatus: ", onFile(&Catalogue::deleteFile) },
    { "deleteFilesFromFolder",
        "deleteFilesFromFolder() failed, handleStatus: ", [](Catalogue& db) { db.deleteFilesFromFolder(1); } },
    { "purgeDeletedFiles",
        "purgeDeletedFiles() failed, handleStatus: ", [](Catalogue& db) { db.purgeDeletedFiles(-100); } },
};

// These look before they write, and fail under their own text only where reading works.
const Operation inserters[] = {
    { "insertNewFolder", "insertIndividualFolder() failed, handleStatus: ", insertOtherFolder },
    { "reviveFolder", "updateFolder() failed, handleStatus: ", onFolder(&Catalogue::insertIndividualFolder) },
    { "insertNewFile", "insertFile() failed, handleStatus: ", insertOtherFile },
    { "reviveFile", "updateFolder() failed, handleStatus: ", onFile(&Catalogue::insertFile) },
};

class StatementFailures : public CatalogueTest, public testing::WithParamInterface<Operation> {
protected:
    StatementFailures()
    {
        openNew();
        insertFolderRow("/v", -1);
        insertFileRow("/v/x.mp3", 1);
    }

    /// What is logged as errors while the operation fails.
    std::vector<LogLine> failureOf(const Operation& operation)
    {
        clearLog();
        testing::internal::CaptureStdout();
        EXPECT_THROW(operation.run(*db), DBOperationException);
        testing::internal::GetCapturedStdout();
        std::vector<LogLine> errors;
        for (const LogLine& line : loggedLines())
            if (line.priority != LOG_INFO)
                errors.push_back(line);
        return errors;
    }

    std::vector<LogLine> expected(int status) const
    {
        return { { LOG_ERR, GetParam().failure + std::to_string(status) + "\n" } };
    }
};

class StatementFailuresTest : public StatementFailures { };
class StatementFailuresOfWritesTest : public StatementFailures { };

std::string nameOf(const testing::TestParamInfo<Operation>& info) { return info.param.name; }

} // namespace

TEST_P(StatementFailuresTest, withoutTables)
{
    close();
    volume.remove(".quarrow/quarrow.db");
    volume.writeFile(".quarrow/quarrow.db");
    open();
    EXPECT_EQ(expected(21), failureOf(GetParam())); // what binding to no statement gives
}

TEST_P(StatementFailuresTest, withTablesDroppedBehindItsBack)
{
    change("drop table Files; drop table Folders");
    EXPECT_EQ(expected(1), failureOf(GetParam())); // prepared from memory, refused when stepped
    EXPECT_EQ(expected(21), failureOf(GetParam()));
}

TEST_P(StatementFailuresTest, leaveNoStatementAndNoTransactionOpen)
{
    change("drop table Files; drop table Folders");
    failureOf(GetParam());
    EXPECT_FALSE(db->isInTransaction());
    close();
    EXPECT_EQ("quarrow.db\n", dumpCatalogueFolder()); // an open statement would have kept the log
}

TEST_P(StatementFailuresOfWritesTest, refusedByATrigger)
{
    insertFolderRow("/deleted", 1);
    change("update Files set is_deleted = 1; update Folders set is_deleted = (folder_id <> 1)");
    for (const std::string table : { "Folders", "Files" })
        for (const std::string event : { "insert", "update", "delete" })
            change("create trigger refuse" + table + event + " before " + event + " on " + table
                + " begin select raise(abort, 'no'); end");
    open();
    EXPECT_EQ(expected(1), failureOf(GetParam())); // not 19: the plain prepare tells no more
}

INSTANTIATE_TEST_SUITE_P(Readers, StatementFailuresTest, testing::ValuesIn(readers), nameOf);
INSTANTIATE_TEST_SUITE_P(Writers, StatementFailuresTest, testing::ValuesIn(writers), nameOf);
INSTANTIATE_TEST_SUITE_P(Writers, StatementFailuresOfWritesTest, testing::ValuesIn(writers), nameOf);
INSTANTIATE_TEST_SUITE_P(Inserters, StatementFailuresOfWritesTest, testing::ValuesIn(inserters), nameOf);

namespace {
class StatementFailuresOfDeleteFileTest : public CatalogueTest { };
} // namespace

TEST_F(StatementFailuresOfDeleteFileTest, saysWhatItIsAboutToDoBeforeItFails)
{
    openNew();
    change("drop table Files");
    DBFile file = musicFile();
    testing::internal::CaptureStdout();
    EXPECT_THROW(db->deleteFile(file), DBOperationException);
    EXPECT_EQ("Deleting file 1\n", testing::internal::GetCapturedStdout());
}
