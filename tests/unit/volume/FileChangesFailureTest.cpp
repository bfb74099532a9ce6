#include "support/SqlTexts.h"
#include "volume/HandlerTest.h"

#include <ostream>

namespace {

using FileChangesFailureTest = FileChangesTest;

struct Failure {
    const char* name;
    void (*event)(HandlerTest& volume);
    const char* statement; ///< a part of the text of the statement that fails
    const char* operation; ///< of the catalogue, which logs it
    std::string error;     ///< what the handler logs; "ROOT" for the volume
    const char* left = ""; ///< rows that the statements before have written
};

void PrintTo(const Failure& failure, std::ostream* out) { *out << failure.name; }

void newKnown(HandlerTest& volume) { volume.newFile("/Music/a.mp3"); }
void newUnknown(HandlerTest& volume) { volume.newFile("/Music/b.mp3"); }
void newOfUnknownFolder(HandlerTest& volume) { volume.newFile("/Films/New/d.avi"); }
void modify(HandlerTest& volume) { volume.modifyFile("/Music/a.mp3"); }
void removeIt(HandlerTest& volume) { volume.deleteFile("/Music/a.mp3"); }
void move(HandlerTest& volume) { volume.moveFile("/Music/a.mp3", "/Films/c.avi"); }
void moveUnknown(HandlerTest& volume) { volume.moveFile("/Music/x.mp3", "/Films/c.avi"); }

const char* const selectLiveFile = "from  files  where  path=?  and name=? and is_deleted=0";
const char* const selectFile = "from  files  where  path=?  and name=?";
const char* const markFile = "update files set is_deleted=1";

const char* const newKnownFailed = "Error in insert/update of the file a.mp3\n";
const char* const newFailed = "Error in insert/update of the file b.mp3\n";
const char* const modifyFailed = "Error in updating file a.mp3\n";
const char* const deleteFailed = "Error in deleting file a.mp3\n";
const char* const moveFailed = "Error in moving the file /Music/a.mp3 to ROOT/Films/c.avi\n";
const char* const moveUnknownFailed = "Error in moving the file /Music/x.mp3 to ROOT/Films/c.avi\n";

class FileChangesFailureOfAStatementTest : public FileChangesTest, public testing::WithParamInterface<Failure> {
protected:
    FileChangesFailureOfAStatementTest()
    {
        put("Music/a.mp3", "changed", 101);
        put("Music/b.mp3", "1", 200);
        put("Films/c.avi", "1", 200);
        put("Films/New/d.avi", "1", 200);
    }

    std::string error() const
    {
        std::string text = GetParam().error;
        const std::string::size_type place = text.find("ROOT");
        return place == std::string::npos ? text : text.replace(place, 4, root);
    }
};

INSTANTIATE_TEST_SUITE_P(FileChanges, FileChangesFailureOfAStatementTest,
    testing::Values(Failure { "newLookUp", newKnown, selectLiveFile, "fileExists", newKnownFailed },
        Failure { "newUpdate", newKnown, "update files set name=?", "updateFile", newKnownFailed },
        Failure { "newFolderLookUp", newUnknown, sql::lookUpLiveFolder, "folderExists", newFailed },
        Failure { "newRowLookUp", newUnknown, "and name=?", "fileExists", newFailed },
        Failure { "newInsert", newUnknown, "insert into files", "insertFile", newFailed },
        Failure { "newAfterItsFolder", newOfUnknownFolder, "insert into files", "insertFile",
            "Error in insert/update of the file d.avi\n", "folder 3 'New' in 2 /Films/New 0 written\n" },
        Failure { "modifyLookUp", modify, selectLiveFile, "fileExists", modifyFailed },
        Failure { "modifyUpdate", modify, "update files set name=?", "updateFile", modifyFailed },
        Failure { "deleteLookUp", removeIt, selectLiveFile, "fileExists", deleteFailed },
        Failure { "deleteMark", removeIt, markFile, "deleteFile", deleteFailed },
        Failure { "moveLookUp", move, selectLiveFile, "fileExists", moveFailed },
        Failure { "moveFolderLookUp", move, sql::lookUpLiveFolder, "folderExists", moveFailed },
        Failure { "moveInsert", move, "insert into files", "insertFile", moveFailed },
        Failure { "moveMark", move, markFile, "deleteFile", moveFailed,
            "file 2 'c.avi' in 2 /Films/c.avi 1 5 100 written\n" },
        Failure { "moveOfAnUnknownLookUp", moveUnknown, selectFile, "fileExists", moveUnknownFailed },
        Failure { "moveOfAnUnknownInsert", moveUnknown, "insert into files", "insertFile", moveUnknownFailed }),
    [](const testing::TestParamInfo<Failure>& failure) { return std::string(failure.param.name); });

TEST_P(FileChangesFailureOfAStatementTest, isLoggedAndTheNextEventIsServed)
{
    const std::string left = GetParam().left;
    const bool leftAFolder = left.compare(0, 6, "folder") == 0;
    const std::string after = folderRows + (leftAFolder ? left : "") + fileA + (leftAFolder ? "" : left);
    const LockTrace trace(*manager);
    {
        const BrokenStatement broken(GetParam().statement);
        GetParam().event(*this);
    }
    EXPECT_EQ((std::vector<LogLine> {
                  err(std::string(GetParam().operation) + "() failed, handleStatus: 21\n"), err(error()) }),
        loggedLines());
    EXPECT_EQ(after, rows());

    EXPECT_EQ("", newFile("/Films/c.avi"));
    EXPECT_EQ("", newFile("/Music/b.mp3"));
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_EQ("(s)(s)(s)", trace.text());
    EXPECT_EQ(nothing, errorsOfAFullWalk());
    EXPECT_EQ("Films/New/d.avi", files().substr(2, 15)) << files();
}

struct Refusal {
    const char* name;
    const char* means; ///< of the trigger
};

void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.name; }

class FileChangesFailureOfAWriteTest : public FileChangesTest, public testing::WithParamInterface<Refusal> { };

INSTANTIATE_TEST_SUITE_P(FileChanges, FileChangesFailureOfAWriteTest,
    testing::Values(Refusal { "aborts", "abort" }, Refusal { "rollsBack", "rollback" }, Refusal { "fails", "fail" }),
    [](const testing::TestParamInfo<Refusal>& refusal) { return std::string(refusal.param.name); });

TEST_P(FileChangesFailureOfAWriteTest, isLoggedAndTheNextEventIsServed)
{
    const std::string refuse = "begin select raise(" + std::string(GetParam().means) + ", 'no'); end;";
    change("create trigger noInsert before insert on Files for each row " + refuse
        + "create trigger noUpdate before update on Files for each row " + refuse);
    deleteFile("/nothing"); // notices the other schema, by a failure
    put("Music/a.mp3", "changed", 101);
    put("Music/b.mp3", "1", 200);
    const auto failsWith = [this](const std::string& operation, const std::string& error) {
        EXPECT_EQ(
            (std::vector<LogLine> { err(operation + "() failed, handleStatus: 1\n"), err(error) }), loggedLines());
        EXPECT_EQ(before, rows());
    };
    newKnown(*this);
    failsWith("updateFile", newKnownFailed);
    newUnknown(*this);
    failsWith("insertFile", newFailed);
    modify(*this);
    failsWith("updateFile", modifyFailed);
    removeIt(*this);
    failsWith("deleteFile", deleteFailed);
    moveFile("/Music/a.mp3", "/Music/b.mp3");
    failsWith("insertFile", "Error in moving the file /Music/a.mp3 to " + root + "/Music/b.mp3\n");
    moveFile("/Music/x.mp3", "/Music/b.mp3");
    failsWith("insertFile", "Error in moving the file /Music/x.mp3 to " + root + "/Music/b.mp3\n");

    change("drop trigger noInsert; drop trigger noUpdate");
    EXPECT_EQ(nothing, errorsOfAFullWalk());
    EXPECT_EQ("[/Music/a.mp3] 2 in [/Music]\n[/Music/b.mp3] 2 in [/Music]\n", files());
}

TEST_F(FileChangesFailureTest, tableThatIsGoneAndComesBackIsSurvived)
{
    const auto failsWith = [](const std::string& error) {
        ASSERT_EQ(2U, loggedLines().size()) << error;
        EXPECT_EQ(1, timesLoggedFrom("fileExists() failed, handleStatus: "));
        EXPECT_EQ(err(error), loggedLines().back());
    };
    put("Music/b.mp3", "1", 200);
    change("alter table Files rename to Gone");
    newUnknown(*this);
    failsWith(newFailed);
    modify(*this);
    failsWith(modifyFailed);
    removeIt(*this);
    failsWith(deleteFailed);
    moveFile("/Music/a.mp3", "/Music/b.mp3");
    failsWith("Error in moving the file /Music/a.mp3 to " + root + "/Music/b.mp3\n");

    change("alter table Gone rename to Files");
    EXPECT_EQ(before, rows());
    newUnknown(*this);
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_EQ(before + "file 2 'b.mp3' in 1 /Music/b.mp3 2 1 200 written\n", rows());
    EXPECT_EQ(nothing, errorsOfAFullWalk());
}

TEST_F(FileChangesFailureTest, fullCatalogueIsSurvived)
{
    runOnItsConnection("pragma max_page_count = 1"); // no page more than it has
    std::string full;
    for (int number = 0; number < 100 && loggedLines().empty(); ++number) {
        full = std::to_string(100 + number) + std::string(200, 'x') + ".mp3";
        ageRows();
        put("Films/" + full, "1", 300);
        newFile("/Films/" + full);
    }
    ASSERT_EQ((std::vector<LogLine> { err("insertFile() failed, handleStatus: 1\n"),
                  err("Error in insert/update of the file " + full + "\n") }),
        loggedLines());
    const std::string rowsBefore = rows();
    EXPECT_EQ(std::string::npos, rowsBefore.find(full));
    EXPECT_EQ(std::string::npos, rowsBefore.find("written"));

    EXPECT_EQ("Deleting file 1\n", deleteFile("/Music/a.mp3")); // takes no room
    EXPECT_EQ(nothing, loggedLines());
    moveFile("/Music/x.mp3", "/Films/" + full);
    EXPECT_EQ(err("Error in moving the file /Music/x.mp3 to " + root + "/Films/" + full + "\n"), loggedLines().back());
    EXPECT_EQ(std::string::npos, rows().find(full));

    runOnItsConnection("pragma max_page_count = 1000000");
    newFile("/Films/" + full);
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_NE(std::string::npos, rows().find("/Films/" + full + " 2 1 300 written\n"));
    EXPECT_EQ(nothing, errorsOfAFullWalk());
    EXPECT_EQ("ok\n", query("pragma integrity_check"));
}

} // namespace
