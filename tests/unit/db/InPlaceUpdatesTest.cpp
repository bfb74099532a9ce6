#include "db/MovesTest.h"

#include <sqlite3.h>

#include <sstream>
#include <type_traits>

using Catalogue = VolumeDBManager;
static_assert(
    std::is_same_v<void (Catalogue::*)(int, int, std::string), decltype(&Catalogue::updatePathForIndividualFolder)>);
static_assert(
    std::is_same_v<void (Catalogue::*)(int, int, std::string), decltype(&Catalogue::updatePathAndNameForFolders)>);

namespace {

/// /v with a and d; b in a, c in b. Two files in a, one in b, one in d.
class InPlaceUpdatesTest : public MovesTest {
protected:
    InPlaceUpdatesTest()
    {
        insertFolderRow("/v", -1);
        insertFolderRow("/v/a", 1);
        insertFolderRow("/v/a/b", 2);
        insertFolderRow("/v/a/b/c", 3);
        insertFolderRow("/v/d", 1);
        insertFileRow("/v/a/1.mp3", 2);
        insertFileRow("/v/a/2.mp3", 2);
        insertFileRow("/v/a/b/3.mp3", 3);
        insertFileRow("/v/d/4.mp3", 5);
        tellRowsApart();
    }

    /// The rows that are others than they were, as they are now. None comes, goes or changes its place.
    std::string changedSince(const std::string& before) const
    {
        std::istringstream old(before);
        std::istringstream now(dump());
        std::string changed;
        for (std::string oldRow, row; std::getline(now, row);) {
            std::getline(old, oldRow);
            if (row != oldRow)
                changed += row + "\n";
        }
        EXPECT_TRUE(old && old.peek() == EOF) << before << "became\n" << dump();
        return changed;
    }
};

struct Rewrite {
    const char* name;
    std::function<bool(VolumeDBManager&, const std::string& text, int id)> run;
    const char* statement;
    const char* bound;   ///< with the text "/new" and the id 2
    const char* changed; ///< rows
    const char* logged;  ///< when it fails, with %s for the status
};

bool updateFilePath(VolumeDBManager& db, const std::string& path, int id)
{
    DBFile file = fileAt(path, 91, 92, 93, 94);
    file.setName("name");
    file.setFolder_id(95);
    file.setFile_id(id);
    return db.updateFilePath(file);
}

const Rewrite rewrites[] = {
    { "updateFilePath", updateFilePath,
        "update files set path=?, name=?, folder_id=?, last_updated_time=strftime('%s','now'), modified_time=?,"
        " created_time=? where file_id = ?\n",
        "update files set path='/new', name='name', folder_id=95, last_updated_time=strftime('%s','now'),"
        " modified_time=93, created_time=94 where file_id = 2\n",
        "file 2 in 95 '/new' 'name' 12 502 93 94 live now\n", "updateFilePath() failed, handleStatus: %s\n" },
    { "updateFolderName",
        [](VolumeDBManager& db, const std::string& name, int id) { return db.updateFolderName(id, name); },
        "update folders set name=?, last_updated_time=strftime('%s','now') where folder_id = ?\n",
        "update folders set name='/new', last_updated_time=strftime('%s','now') where folder_id = 2\n",
        "folder 2 in 1 '/v/a' '/new' 102 202 live now\n", "updateFolderName() failed, handleStatus: %s\n" },
    // The path alone, whatever it is called; and the words of its failure are doubled.
    { "updatePathAndNameForFolderByFolderById",
        [](VolumeDBManager& db, const std::string& path, int id) {
            return db.updatePathAndNameForFolderByFolderById(path, id);
        },
        "update folders set path=?, last_updated_time=strftime('%s','now')  where folder_id = ?\n",
        "update folders set path='/new', last_updated_time=strftime('%s','now')  where folder_id = 2\n",
        "folder 2 in 1 '/new' 'a' 102 202 live now\n",
        "updatePathAndNameForFolderByIdFolderById() failed, handleStatus: %s\n" },
    // Every file gets the folder's path, without its name; and its failure does not show the status.
    { "updateFilesInFolderPath",
        [](VolumeDBManager& db, const std::string& path, int id) { return db.updateFilesInFolderPath(id, path); },
        "update files set path=?, last_updated_time=strftime('%s','now')  where folder_id = ?\n",
        "update files set path='/new', last_updated_time=strftime('%s','now')  where folder_id = 2\n",
        "file 1 in 2 '/new' '1.mp3' 11 501 301 401 live now\nfile 2 in 2 '/new' '2.mp3' 12 502 302 402 live now\n",
        "updateFilesInFolderPath() failed, handleStatus: \n" },
};

class InPlaceUpdatesOfRowsTest : public InPlaceUpdatesTest, public testing::WithParamInterface<Rewrite> {
protected:
    std::string run(const std::string& text, int id)
    {
        clearLog();
        probe.clear();
        return outcomeOf([&] { return GetParam().run(*db, text, id); });
    }

    static std::vector<LogLine> failure(const std::string& status)
    {
        std::string text = GetParam().logged;
        const std::string::size_type place = text.find("%s");
        return errorLine(place == std::string::npos ? text : text.replace(place, 2, status));
    }
};

struct Element {
    const char* name;
    const char* path;
    int level;
    std::string element;
    std::string result; ///< as SQL writes it
};

const Element elements[] = {
    { "inTheMiddle", "/v/a/b", 1, "x", "/v/x/b" },
    { "first", "/v/a/b", 0, "x", "/x/a/b" },
    { "last", "/v/a/b", 2, "x", "/v/a/x" },
    { "behindTheLast", "/v/a/b", 3, "x", "/v/a/b" },
    { "beforeTheFirst", "/v/a/b", -1, "x", "/v/a/b" },
    { "amongEqualOnes", "/v/v/v", 1, "x", "/v/x/v" },
    { "notCountingNeedlessSlashes", "//v//a///b/", 1, "x", "/v/x/b" },
    { "withoutALeadingSlash", "v/a", 0, "x", "/x/a" },
    { "madeTwo", "/v/a/b", 1, "x/y", "/v/x/y/b" },
    { "madeEmpty", "/v/a/b", 1, "", "/v//b" },
    { "ofNoPath", "", 0, "x", "" },
    { "madeOdd", "/v/a/b", 1, oddName, "/v/" + oddNameInSql + "/b" },
    { "besideAnOddOne", "/v/\xff 100%s/b", 2, "x", "/v/\xff 100%s/x" },
};

class InPlaceUpdatesOfAnElementTest : public InPlaceUpdatesTest, public testing::WithParamInterface<Element> { };

std::string replaceAll(std::string text, const std::string& old, const std::string& now)
{
    for (std::string::size_type at = 0; (at = text.find(old, at)) != std::string::npos; at += now.size())
        text.replace(at, old.size(), now);
    return text;
}

} // namespace

TEST_P(InPlaceUpdatesOfRowsTest, changeTheseRowsAndNoOthers)
{
    const std::string before = dump();
    EXPECT_EQ("true", run("/new", 2));
    EXPECT_EQ(GetParam().statement, probe.statements());
    EXPECT_EQ(GetParam().bound, probe.boundStatements());
    EXPECT_EQ(GetParam().changed, changedSince(before));
    EXPECT_EQ(std::vector<LogLine> {}, loggedLines());
}

TEST_P(InPlaceUpdatesOfRowsTest, areTrueWithoutARow)
{
    const std::string before = dump();
    EXPECT_EQ("true", run("/new", 77));
    EXPECT_EQ(before, dump());
}

TEST_P(InPlaceUpdatesOfRowsTest, changeDeletedRowsTooAndLeaveThemDeleted)
{
    change("update Folders set is_deleted = 1; update Files set is_deleted = 1");
    const std::string before = dump();
    EXPECT_EQ("true", run("/new", 2));
    EXPECT_EQ(replaceAll(GetParam().changed, " live", " deleted"), changedSince(before));
}

TEST_P(InPlaceUpdatesOfRowsTest, takeTextsAsBytes)
{
    EXPECT_EQ("true", run(oddName, 2));
    EXPECT_NE(std::string::npos, dump().find(replaceAll(GetParam().changed, "/new", oddNameInSql))) << dump();
}

TEST_P(InPlaceUpdatesOfRowsTest, failUnderTheirText)
{
    change("drop table Files; drop table Folders");
    EXPECT_EQ(failed, run("/new", 2));
    EXPECT_EQ(failure("1"), loggedLines()); // refused when stepped
    EXPECT_EQ(failed, run("/new", 2));
    EXPECT_EQ(failure("21"), loggedLines()); // not even prepared
}

TEST_P(InPlaceUpdatesOfRowsTest, failAtTheFirstBindThatFails)
{
    const std::string before = dump();
    probe.refuseTextsOver(100, SQLITE_UPDATE);
    EXPECT_EQ(failed, run(std::string(200, 'x'), 2));
    EXPECT_EQ(failure("18"), loggedLines());
    EXPECT_EQ("", probe.statements());
    EXPECT_EQ(before, dump());
}

INSTANTIATE_TEST_SUITE_P(Catalogue, InPlaceUpdatesOfRowsTest, testing::ValuesIn(rewrites), nameOf<Rewrite>);

TEST_P(InPlaceUpdatesOfAnElementTest, isTheOneAtTheLevelAndTheFilesGetTheFoldersPath)
{
    const Element& c = GetParam();
    change("update Folders set path = '" + std::string(c.path) + "' where folder_id = 3");
    std::string expected = dump();
    const auto expectRow = [&](const std::string& row) {
        const std::string::size_type begin = expected.find(row.substr(0, row.find(" in ") + 1));
        expected.replace(begin, expected.find('\n', begin) - begin + 1, row);
    };
    expectRow("folder 3 in 2 '" + c.result + "' 'b' 103 203 live now\n");
    expectRow("file 3 in 3 '" + c.result + "' '3.mp3' 13 503 303 403 live now\n");
    db->updatePathForIndividualFolder(3, c.level, c.element);
    EXPECT_EQ(expected, dump());
    EXPECT_EQ(std::vector<LogLine> {}, loggedLines());
}

INSTANTIATE_TEST_SUITE_P(Catalogue, InPlaceUpdatesOfAnElementTest, testing::ValuesIn(elements), nameOf<Element>);

TEST_F(InPlaceUpdatesTest, aFolderThatIsNotLiveLosesItsPathAndSoDoItsFiles)
{
    change("update Folders set is_deleted = 1 where folder_id = 3; update Files set folder_id = 77 where file_id = 4");
    const std::string before = dump();
    db->updatePathForIndividualFolder(3, 1, "x");
    db->updatePathForIndividualFolder(77, 1, "x");
    EXPECT_EQ("folder 3 in 2 '' 'b' 103 203 deleted now\n"
              "file 3 in 3 '' '3.mp3' 13 503 303 403 live now\n"
              "file 4 in 77 '' '4.mp3' 14 504 304 404 live now\n",
        changedSince(before));
}

TEST_F(InPlaceUpdatesTest, oneFolderTakesThreeStatements)
{
    probe.clear();
    db->updatePathForIndividualFolder(3, 1, "x");
    EXPECT_EQ(sql::selectFolder("folder_id=3 and is_deleted=0")
            + "update folders set path='/v/x/b', last_updated_time=strftime('%s','now')  where folder_id = 3\n"
              "update files set path='/v/x/b', last_updated_time=strftime('%s','now')  where folder_id = 3\n",
        probe.boundStatements());
}

TEST_F(InPlaceUpdatesTest, everythingBelowAFolderButNotTheFolderItself)
{
    const std::string before = dump();
    db->updatePathAndNameForFolders(1, 1, "x");
    EXPECT_EQ("folder 2 in 1 '/v/x' 'a' 102 202 live now\n"
              "folder 3 in 2 '/v/x/b' 'b' 103 203 live now\n"
              "folder 4 in 3 '/v/x/b/c' 'c' 104 204 live now\n"
              "folder 5 in 1 '/v/x' 'd' 105 205 live now\n"
              "file 1 in 2 '/v/x' '1.mp3' 11 501 301 401 live now\n"
              "file 2 in 2 '/v/x' '2.mp3' 12 502 302 402 live now\n"
              "file 3 in 3 '/v/x/b' '3.mp3' 13 503 303 403 live now\n"
              "file 4 in 5 '/v/x' '4.mp3' 14 504 304 404 live now\n",
        changedSince(before));
    EXPECT_EQ(std::vector<LogLine> {}, loggedLines());
}

TEST_F(InPlaceUpdatesTest, eachChildComesBeforeItsOwnChildren)
{
    const auto folder = [](const std::string& id, const std::string& path) {
        const std::string rest
            = " set path='" + path + "', last_updated_time=strftime('%s','now')  where folder_id = " + id + "\n";
        return sql::selectFolder("folder_id=" + id + " and is_deleted=0") + "update folders" + rest + "update files"
            + rest;
    };
    probe.clear();
    db->updatePathAndNameForFolders(1, 0, "x");
    EXPECT_EQ(sql::liveIdsIn("1") + folder("2", "/x/a") + sql::liveIdsIn("2") + folder("3", "/x/a/b")
            + sql::liveIdsIn("3") + folder("4", "/x/a/b/c") + sql::liveIdsIn("4") + folder("5", "/x/d")
            + sql::liveIdsIn("5"),
        probe.boundStatements());
}

TEST_F(InPlaceUpdatesTest, deletedFoldersAndWhatIsBelowThemAreLeft)
{
    change("update Folders set is_deleted = 1 where folder_id = 3");
    const std::string before = dump();
    db->updatePathAndNameForFolders(2, 1, "x");
    EXPECT_EQ(before, dump());
}

TEST_F(InPlaceUpdatesTest, aFolderThatIsItsOwnDescendantIsRewrittenOnce)
{
    change("update Folders set parent_id = 3 where folder_id = 2");
    probe.clear();
    db->updatePathAndNameForFolders(2, 1, "x");
    EXPECT_EQ(
        "3 /v/x/b\n4 /v/x/b/c\n", query("select folder_id, path from Folders where path like '/v/x%' order by 1"));
}

TEST_F(InPlaceUpdatesTest, aFailureLeavesWhatWasDoneBefore)
{
    refuse("update on Files when new.name = '3.mp3'");
    const std::string before = dump();
    EXPECT_THROW(db->updatePathAndNameForFolders(1, 1, "x"), DBOperationException);
    EXPECT_EQ("folder 2 in 1 '/v/x' 'a' 102 202 live now\n"
              "folder 3 in 2 '/v/x/b' 'b' 103 203 live now\n"
              "file 1 in 2 '/v/x' '1.mp3' 11 501 301 401 live now\n"
              "file 2 in 2 '/v/x' '2.mp3' 12 502 302 402 live now\n",
        changedSince(before));
    EXPECT_EQ(errorLine("updateFilesInFolderPath() failed, handleStatus: \n"), loggedLines());
}

TEST_F(InPlaceUpdatesTest, failsUnderTheTextOfTheStatementThatFails)
{
    refuse("update on Folders");
    EXPECT_THROW(db->updatePathForIndividualFolder(3, 1, "x"), DBOperationException);
    EXPECT_EQ(errorLine("updatePathAndNameForFolderByIdFolderById() failed, handleStatus: 1\n"), loggedLines());
    EXPECT_EQ("/v/a/b/3.mp3\n", query("select path from Files where file_id = 3"));
    change("drop table Folders");
    clearLog();
    EXPECT_THROW(db->updatePathForIndividualFolder(3, 1, "x"), DBOperationException);
    EXPECT_THROW(db->updatePathAndNameForFolders(3, 1, "x"), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "findFolderByFolderId() failed, handleStatus: 1\n" },
                  { LOG_ERR, "getListOfFolders() failed, handleStatus: 21\n" } }),
        loggedLines());
}

TEST_F(InPlaceUpdatesTest, aTreeDeeperThanAWalkThreadsStackIsRewrittenWhole)
{
    insertDeepTree(5, "/v/");
    db->beginTransaction();
    runOnTheStackOfAWalk([this] { db->updatePathAndNameForFolders(5, 0, "x"); });
    db->commitTransaction();
    EXPECT_EQ("9995\n", query("select count(*) from Folders where path = '/x/' || folder_id and folder_id > 5"));
}
