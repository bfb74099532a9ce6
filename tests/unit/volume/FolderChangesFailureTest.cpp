#include "support/SqlTexts.h"
#include "volume/HandlerTest.h"

#include <ostream>

namespace {

using FolderChangesFailureTest = FolderChangesTest;

const char* const markFiles = "update files set is_deleted=1, last_updated_time=strftime('%s','now')  where folder_id";

struct Failure {
    const char* name;
    std::string (*event)(HandlerTest& volume);
    const char* statement; ///< a part of the text of the statement that fails
    const char* operation; ///< of the catalogue, which logs it
    const char* trace = "(s)";
};

void PrintTo(const Failure& failure, std::ostream* out) { *out << failure.name; }

std::string newKnown(HandlerTest& volume)
{
    volume.newFolder("/Music/Rock");
    return "Error in updating/inserting of the folder Rock\n";
}
std::string newUnknown(HandlerTest& volume)
{
    volume.newFolder("/Films/New");
    return "Error in updating/inserting of the folder New\n";
}
std::string removeIt(HandlerTest& volume)
{
    volume.deleteFolder("/Music/Rock");
    return "Error in deleting folder ROOT/Music/Rock\n";
}
std::string move(HandlerTest& volume)
{
    volume.moveFolder("/Music/Rock", "/Films/New");
    return "Error in moving folder Rock to New\n";
}
std::string moveUnknown(HandlerTest& volume)
{
    volume.moveFolder("/Music/Unknown", "/Films/New");
    return "Error in moving folder Unknown to New\n";
}

class FolderChangesFailureOfAStatementTest : public FolderChangesTest, public testing::WithParamInterface<Failure> { };

INSTANTIATE_TEST_SUITE_P(FolderChanges, FolderChangesFailureOfAStatementTest,
    testing::Values(Failure { "newLookUp", newUnknown, sql::lookUpLiveFolder, "folderExists" },
        Failure { "newRowLookUp", newUnknown, "from folders where path=?", "folderExists" },
        Failure { "newInsert", newUnknown, sql::addFolder, "insertIndividualFolder" },
        Failure { "newUpdate", newKnown, "update folders set last_updated_time", "updateFolder" },
        Failure { "deleteLookUp", removeIt, sql::lookUpLiveFolder, "folderExists", "(BsR)" },
        Failure { "deleteList", removeIt, sql::listFolderIds, "getListOfFolders", "(BsR)" },
        Failure { "deleteMarkFiles", removeIt, markFiles, "deleteFilesFromFolder", "(BsR)" },
        Failure { "deleteMarkFolder", removeIt, sql::markAFolder, "deleteFolderRecord", "(BsR)" },
        Failure { "moveBegin", move, "BEGIN", nullptr, "(B)" },
        Failure { "moveLookUp", move, sql::lookUpLiveFolder, "folderExists", "(BsR)" },
        Failure { "moveInsertFolder", move, sql::addFolder, "insertIndividualFolder", "(BsR)" },
        Failure { "moveListFiles", move, "select path , name , category", "getSimpleFileListByFolder", "(BsR)" },
        Failure { "moveInsertFile", move, "insert into files", "insertFile", "(BsR)" },
        Failure { "moveMarkFile", move, "where file_id = ?", "deleteFile", "(BsR)" },
        Failure { "moveListFolders", move, "where parent_id=?", "getFolderListByFolder", "(BsR)" },
        Failure { "moveMarkFolder", move, sql::markAFolder, "deleteFolderRecord", "(BsR)" },
        Failure { "moveMarkFiles", move, markFiles, "deleteFilesFromFolder", "(BsR)" },
        Failure { "moveCommit", move, "COMMIT", nullptr, "(BsCR)" },
        Failure { "moveOfAnUnknownLookUp", moveUnknown, sql::lookUpLiveFolder, "folderExists", "(BsR)" },
        Failure { "moveOfAnUnknownInsert", moveUnknown, sql::addFolder, "insertIndividualFolder", "(BsR)" },
        Failure { "moveOfAnUnknownCommit", moveUnknown, "COMMIT", nullptr, "(BsCR)" }),
    [](const testing::TestParamInfo<Failure>& failure) { return std::string(failure.param.name); });

TEST_P(FolderChangesFailureOfAStatementTest, isLoggedWithoutAWalkAndTheNextEventIsServed)
{
    put("Films/New/c.avi", "1", 300);
    const LockTrace trace(*manager);
    std::string error;
    {
        const BrokenStatement broken(GetParam().statement);
        error = GetParam().event(*this);
    }
    const std::string::size_type place = error.find("ROOT");
    std::vector<LogLine> expected { err(place == std::string::npos ? error : error.replace(place, 4, root)) };
    if (GetParam().operation != nullptr)
        expected.insert(expected.begin(), err(std::string(GetParam().operation) + "() failed, handleStatus: 21\n"));
    EXPECT_EQ(expected, loggedErrors());
    EXPECT_EQ(0, walks());
    EXPECT_EQ(GetParam().trace, trace.text());
    EXPECT_EQ(before, rows());
    EXPECT_EQ(4, watches());

    newFolder("/Films/New");
    EXPECT_EQ(nothing, loggedErrors());
    EXPECT_EQ(1, walks());
    EXPECT_EQ(nothing, errorsOfAFullWalk());
    EXPECT_EQ("[/Films] root\n[/Films/New] in [/Films]\n[/Music] root\n[/Music/Rock] in [/Music]\n"
              "[/Music/Rock/Live] in [/Music/Rock]\n",
        folders());
    EXPECT_EQ("[/Films/New/c.avi] 1 in [/Films/New]\n[/Music/Rock/Live/b.mp3] 2 in [/Music/Rock/Live]\n"
              "[/Music/Rock/a.mp3] 2 in [/Music/Rock]\n",
        files());
}

TEST_F(FolderChangesFailureTest, moveThatACommitCannotEndIsUndoneAlsoWhenSqliteHasDoneSo)
{
    rename("/Music/Rock", "/Films/Pop");
    const std::string fail = " before insert on Files when new.name = 'b.mp3' begin select raise(rollback, 'no'); end";
    change("create trigger refuse" + fail);
    deleteFolder("/nothing"); // notices the other schema, by a failure
    const LockTrace trace(*manager);
    moveFolder("/Music/Rock", "/Films/Pop");
    EXPECT_EQ((std::vector<LogLine> {
                  err("insertFile() failed, handleStatus: 1\n"), err("Error in moving folder Rock to Pop\n") }),
        loggedErrors());
    EXPECT_EQ("(Bs)", trace.text());
    EXPECT_EQ(before, rows());
    EXPECT_TRUE(endsWatchOf("/Music/Rock")) << "nobody walked";

    change("drop trigger refuse");
    moveFolder("/Music/Rock", "/Films/Pop");
    EXPECT_EQ(nothing, loggedErrors());
    EXPECT_EQ(nothing, errorsOfAFullWalk());
    EXPECT_EQ("[/Films/Pop/Live/b.mp3] 2 in [/Films/Pop/Live]\n[/Films/Pop/a.mp3] 2 in [/Films/Pop]\n"
              "[/Music/Rock/Live/b.mp3] 2 in [/Music/Rock/Live] deleted\n"
              "[/Music/Rock/a.mp3] 2 in [/Music/Rock] deleted\n",
        files());
}

TEST_F(FolderChangesFailureTest, tableThatIsGoneAndComesBackIsSurvived)
{
    volume.makeFolder("Films/New");
    change("alter table Folders rename to Gone");
    newUnknown(*this);
    EXPECT_EQ(err("Error in updating/inserting of the folder New\n"), loggedErrors().back());
    removeIt(*this);
    EXPECT_EQ(err("Error in deleting folder " + root + "/Music/Rock\n"), loggedErrors().back());
    move(*this);
    EXPECT_EQ(err("Error in moving folder Rock to New\n"), loggedErrors().back());
    EXPECT_EQ(0, walks());
    change("alter table Gone rename to Folders");
    EXPECT_EQ(before, rows());
    newUnknown(*this);
    EXPECT_EQ(nothing, loggedErrors());
    EXPECT_EQ(nothing, errorsOfAFullWalk());
}

TEST_F(FolderChangesFailureTest, moveThatFillsTheCatalogueIsUndone)
{
    for (int number = 100; number < 200; ++number)
        put("Music/Rock/" + std::to_string(number) + std::string(200, 'x'), "1", 300);
    settle({ "Music/Rock" });
    walk("/Music");
    ageRows();
    const std::string rowsBefore = rows();
    rename("/Music/Rock", "/Films/Pop");
    runOnItsConnection("pragma max_page_count = 1"); // no page more than it has
    moveFolder("/Music/Rock", "/Films/Pop");
    ASSERT_EQ((std::vector<LogLine> {
                  err("insertFile() failed, handleStatus: 1\n"), err("Error in moving folder Rock to Pop\n") }),
        loggedErrors());
    EXPECT_EQ(rowsBefore, rows());
    EXPECT_EQ(0, walks());

    runOnItsConnection("pragma max_page_count = 1000000");
    moveFolder("/Music/Rock", "/Films/Pop");
    EXPECT_EQ(nothing, loggedErrors());
    EXPECT_EQ("102 102\n", query("select sum(is_deleted), sum(not is_deleted) from Files"));
    EXPECT_EQ(nothing, errorsOfAFullWalk());
    EXPECT_EQ("ok\n", query("pragma integrity_check"));
}

TEST_F(FolderChangesFailureTest, stopInTheMiddleOfAMoveUndoesIt)
{
    rename("/Music/Rock", "/Films/Pop");
    const OnStatement stop([this](const std::string& text, sqlite3*) {
        if (text.find("insert into files") != std::string::npos)
            manager->requestStop();
    });
    moveFolder("/Music/Rock", "/Films/Pop");
    EXPECT_EQ(nothing, loggedErrors()) << "a stop is no failure";
    EXPECT_EQ(before, rows());
}

TEST_F(FolderChangesFailureTest, stopInTheMiddleOfADeletionUndoesIt)
{
    const OnStatement stop([this](const std::string& text, sqlite3*) {
        if (text.find(sql::listFolderIds) != std::string::npos)
            manager->requestStop();
    });
    deleteFolder("/Music/Rock");
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_EQ(before, rows());
}

} // namespace
