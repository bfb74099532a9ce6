#include "core/ForeignWriter.h"
#include "db/MovesTest.h"

#include <ctime>
#include <future>

namespace {

constexpr long long gibibyte = 1LL << 30;

/// What standard output says of each file.
std::string fileLines(const std::string& newPath, int oldId)
{
    return "Replaced the path to " + newPath + "\nInserting file " + newPath + "\nDeleting file "
        + std::to_string(oldId) + "\n";
}

/// A move by the paths, as a caller does it.
class FolderMoves : public MovesTest {
protected:
    std::string move(const std::string& from, const std::string& to)
    {
        src = folderAt(from);
        EXPECT_TRUE(db->folderExists(src));
        dst = folderAt(to);
        clearLog();
        const std::time_t begin = std::time(nullptr);
        std::string outcome = outcomeOf([this] { return db->moveFolder(src, dst); });
        longest = std::time(nullptr) - begin;
        return outcome;
    }

    /// The line about the seconds that a move took: the one that was logged, when those are possible.
    LogLine timeTaken(const std::string& from, const std::string& to) const
    {
        const auto line = [&](std::time_t seconds) {
            return LogLine { LOG_INFO,
                "The time taken to move " + from + " to " + to + " is " + std::to_string(seconds) + "\n" };
        };
        std::time_t seconds = 0;
        while (seconds < longest && timesLogged(LOG_INFO, line(seconds).text) == 0)
            ++seconds;
        return line(seconds);
    }

    DBFolder src;
    DBFolder dst;
    std::time_t longest = 0; ///< the seconds between before the move and after it
};

/// /v with a and b; in a are s, with t in it, and u. A file in each, two in a.
class MoveFolderTest : public FolderMoves {
protected:
    MoveFolderTest()
    {
        insertFolderRow("/v", -1);
        insertFolderRow("/v/a", 1);
        insertFolderRow("/v/a/s", 2);
        insertFolderRow("/v/a/s/t", 3);
        insertFolderRow("/v/a/u", 2);
        insertFolderRow("/v/b", 1);
        insertFileRow("/v/a/1.mp3", 2);
        insertFileRow("/v/a/2.jpg", 2);
        insertFileRow("/v/a/s/3.mp3", 3);
        insertFileRow("/v/a/s/t/4.mp3", 4);
        insertFileRow("/v/a/u/5.mp3", 5);
        insertFileRow("/v/b/6.mp3", 6);
        tellRowsApart();
    }

    /// The ids of the live folders, then those of the live files.
    std::string liveRows() const
    {
        return query("select group_concat(folder_id, ' ') from (select folder_id from Folders where is_deleted = 0"
                     " order by 1)")
            + query("select group_concat(file_id, ' ') from (select file_id from Files where is_deleted = 0 order by"
                    " 1)");
    }
};

const std::string printedByMoveToX = "Moving /v/a to /v/x\n" + fileLines("/v/x/1.mp3", 1) + fileLines("/v/x/2.jpg", 2)
    + fileLines("/v/x/s/3.mp3", 3) + fileLines("/v/x/u/5.mp3", 5) + fileLines("/v/x/s/t/4.mp3", 4);

const std::string oldFoldersMoved = "folder 1 in -1 '/v' 'v' 101 201 live\n"
                                    "folder 2 in 1 '/v/a' 'a' 102 202 deleted now\n"
                                    "folder 3 in 2 '/v/a/s' 's' 103 203 deleted now\n"
                                    "folder 4 in 3 '/v/a/s/t' 't' 104 204 deleted now\n"
                                    "folder 5 in 2 '/v/a/u' 'u' 105 205 deleted now\n"
                                    "folder 6 in 1 '/v/b' 'b' 106 206 live\n";
const std::string oldFilesMoved = "file 1 in 2 '/v/a/1.mp3' '1.mp3' 11 501 301 401 deleted now\n"
                                  "file 2 in 2 '/v/a/2.jpg' '2.jpg' 12 502 302 402 deleted now\n"
                                  "file 3 in 3 '/v/a/s/3.mp3' '3.mp3' 13 503 303 403 deleted now\n"
                                  "file 4 in 4 '/v/a/s/t/4.mp3' '4.mp3' 14 504 304 404 deleted now\n"
                                  "file 5 in 5 '/v/a/u/5.mp3' '5.mp3' 15 505 305 405 deleted now\n"
                                  "file 6 in 6 '/v/b/6.mp3' '6.mp3' 16 506 306 406 live\n";
const std::string afterMoveToX = oldFoldersMoved
    + "folder 7 in 1 '/v/x' 'x' 102 202 live now\n"
      "folder 8 in 7 '/v/x/s' 's' 103 203 live now\n"
      "folder 9 in 7 '/v/x/u' 'u' 105 205 live now\n"
      "folder 10 in 8 '/v/x/s/t' 't' 104 204 live now\n"
    + oldFilesMoved
    + "file 7 in 7 '/v/x/1.mp3' '1.mp3' 11 501 301 401 live now\n"
      "file 8 in 7 '/v/x/2.jpg' '2.jpg' 12 502 302 402 live now\n"
      "file 9 in 8 '/v/x/s/3.mp3' '3.mp3' 13 503 303 403 live now\n"
      "file 10 in 9 '/v/x/u/5.mp3' '5.mp3' 15 505 305 405 live now\n"
      "file 11 in 10 '/v/x/s/t/4.mp3' '4.mp3' 14 504 304 404 live now\n";

struct Replacement {
    const char* name;
    const char* folder;
    const char* file; ///< the path of a file that is filed under the folder
    const char* to;
    const char* newFile;
};

// Not a prefix is replaced, nor the old path where it is found, but as many characters as it has from the first one on
// that occurs anywhere in it.
const Replacement replacements[] = {
    { "thePrefix", "/v/a", "/v/a/1.mp3", "/v/x", "/v/x/1.mp3" },
    { "onlyTheFirstOfTwo", "/v/a", "/v/a/v/a/1.mp3", "/v/x", "/v/x/v/a/1.mp3" },
    { "aLongerPath", "/v/a", "/v/a/1.mp3", "/v/b/c/longer", "/v/b/c/longer/1.mp3" },
    { "theBeginningOfAForeignPath", "/v/a", "/w/bcd/1.mp3", "/v/x", "/v/xcd/1.mp3" },
    { "theWholeOfAShorterPath", "/v/long", "/w/1", "/v/x", "/v/x" },
    { "fromTheFirstCharacterInCommon", "bv", "a/v/1.mp3", "w", "a/w1.mp3" },
    { "nothingWithoutACharacterInCommon", "v", "a/1.mp3", "w", "a/1.mp3" },
};

class MoveFolderReplacedPathTest : public FolderMoves, public testing::WithParamInterface<Replacement> { };

struct Failure {
    const char* name;
    const char* refused;
    const char* logged;
    std::string printed;
    const char* liveRows; ///< that are left
};

const std::string firstFolderPrinted
    = "Moving /v/a to /v/x\n" + fileLines("/v/x/1.mp3", 1) + fileLines("/v/x/2.jpg", 2);

const Failure failures[] = {
    { "whenTheFolderCannotBeMade", "insert on Folders", "insertIndividualFolder() failed, handleStatus: 1\n",
        "Moving /v/a to /v/x\n", "1 2 3 4 5 6\n1 2 3 4 5 6\n" },
    { "whenAFolderBelowCannotBeMade", "insert on Folders when new.name = 's'",
        "insertIndividualFolder() failed, handleStatus: 1\n", firstFolderPrinted, "1 2 3 4 5 6 7\n3 4 5 6 7 8\n" },
    { "whenAFileCannotBeMade", "insert on Files when new.name = '3.mp3'", "insertFile() failed, handleStatus: 1\n",
        firstFolderPrinted + "Replaced the path to /v/x/s/3.mp3\nInserting file /v/x/s/3.mp3\n",
        "1 2 3 4 5 6 7 8\n3 4 5 6 7 8\n" },
    { "whenAnOldFileCannotBeMarked", "update on Files when new.name = '2.jpg'",
        "deleteFile() failed, handleStatus: 1\n", firstFolderPrinted, "1 2 3 4 5 6 7\n2 3 4 5 6 7 8\n" },
    { "whenAnOldFolderBelowCannotBeMarked", "update on Folders when new.name = 't'",
        "deleteFolderRecord() failed, handleStatus: 1\n", printedByMoveToX, "1 2 4 5 6 7 8 9 10\n6 7 8 9 10 11\n" },
    { "whenTheOldFolderCannotBeMarked", "update on Folders when new.name = 'a'",
        "deleteFolderRecord() failed, handleStatus: 1\n", printedByMoveToX, "1 2 6 7 8 9 10\n6 7 8 9 10 11\n" },
};

class MoveFolderFailuresTest : public MoveFolderTest, public testing::WithParamInterface<Failure> { };

} // namespace

TEST_F(MoveFolderTest, makesNewRowsForTheWholeTreeAndMarksTheOldOnesDeleted)
{
    EXPECT_EQ(printedByMoveToX + "true", move("/v/a", "/v/x"));
    EXPECT_EQ(afterMoveToX, dump());
    EXPECT_EQ((std::vector<LogLine> { timeTaken("/v/a", "/v/x") }), loggedLines());
    EXPECT_EQ("2 in 1 '/v/a' 'a' modified 102 created 202 live", describe(src));
    EXPECT_EQ("0 in 0 '/v/x' '' modified 0 created 0 live", describe(dst));
}

TEST_F(MoveFolderTest, runsTheseStatements)
{
    change("update Folders set is_deleted = 1 where folder_id in (4, 5); delete from Files where file_id in (2, 3, 4)");
    src = folderAt("/v/a");
    db->folderExists(src);
    dst = folderAt("/v/x");
    probe.clear();
    outcomeOf([this] { return db->moveFolder(src, dst); });
    EXPECT_EQ(liveFolder("/v/x") // and no transaction of its own
            + liveFolder("/v/x") + liveFolder("/v/x") + liveFolder("/v") + sql::anyFolder("'/v/x'")
            + sql::insertIntoFolders("1,'/v/x','x',0,102,strftime('%s','now'),202,0") + sql::liveFilesIn("2")
            + insertFile("/v/x/1.mp3", 7, "501", "301,401,11") + liveFile("/v/a/1.mp3") + deleteFile(1)
            + sql::liveFoldersIn("2") + liveFolder("/v/x/s") + liveFolder("/v/x/s") + liveFolder("/v/x")
            + sql::anyFolder("'/v/x/s'") + sql::insertIntoFolders("7,'/v/x/s','s',0,103,strftime('%s','now'),203,0")
            + liveFolder("/v") + sql::liveFilesIn("3") + sql::liveFoldersIn("3") + liveFolder("/v/a")
            + sql::liveIdsIn("2") + sql::markFilesIn("3") + sql::markFolder("3") + sql::liveIdsIn("3")
            + sql::markFolder("2") + sql::markFilesIn("2"),
        probe.boundStatements());
}

TEST_F(MoveFolderTest, ontoALiveFolderChangesNothing)
{
    const std::string before = dump();
    EXPECT_EQ("Moving /v/a to /v/b\nfalse", move("/v/a", "/v/b"));
    EXPECT_EQ("6 in 1 '/v/b' 'b' modified 106 created 206 live", describe(dst));
    EXPECT_EQ("Moving /v/a to /v/a\nfalse", move("/v/a", "/v/a"));
    EXPECT_EQ(before, dump());
    EXPECT_EQ(std::vector<LogLine> {}, loggedLines());
}

TEST_F(MoveFolderTest, intoItselfChangesNothing)
{
    const std::string before = dump();
    EXPECT_EQ("Moving /v/a to /v/a/x\nfalse", move("/v/a", "/v/a/x"));
    EXPECT_EQ(before, dump());
    EXPECT_EQ("Moving /v/a to /v/ax", move("/v/a", "/v/ax").substr(0, 20)) << "which is not inside";
    EXPECT_EQ("/v/ax\n", query("select path from Folders where path = '/v/ax' and is_deleted = 0"));
}

TEST_F(MoveFolderTest, ofAFolderThatIsItsOwnDescendantEnds)
{
    change("update Folders set parent_id = 3 where folder_id = 2");
    const std::string printed = move("/v/a", "/v/x");
    EXPECT_EQ("true", printed.substr(printed.length() - 4));
    EXPECT_EQ("", query("select path from Folders where (path = '/v/a' or path like '/v/a/%') and is_deleted = 0"));
    EXPECT_EQ(
        "/v/x\n/v/x/s\n/v/x/s/t\n/v/x/u\n", query("select path from Folders where path like '/v/x%' order by path"));
}

TEST_F(MoveFolderTest, ofATransactionEndsWithAStopRequest)
{
    db->beginTransaction();
    db->requestStop();
    EXPECT_EQ("Moving /v/a to /v/x\n" + failed, move("/v/a", "/v/x"));
    db->rollbackTransaction();
    EXPECT_EQ("", query("select path from Folders where path = '/v/x'"));
}

TEST_F(MoveFolderTest, logsTheSecondsItTook)
{
    ForeignWriter neighbour(dbPath);
    probe.clear();
    std::future<void> letGo = std::async(std::launch::async, [&] {
        EXPECT_TRUE(probe.waitUntilBusy(2)); // one second is over
        neighbour.release();
    });
    EXPECT_EQ(printedByMoveToX + "true", move("/v/a", "/v/x"));
    letGo.get();
    EXPECT_EQ((std::vector<LogLine> { timeTaken("/v/a", "/v/x") }), loggedLines());
    EXPECT_EQ(0, timesLogged(LOG_INFO, "The time taken to move /v/a to /v/x is 0\n"));
}

TEST_F(MoveFolderTest, thereAndBackEndsWithTheOldRows)
{
    move("/v/a", "/v/x");
    EXPECT_EQ("Moving /v/x to /v/a\n" + fileLines("/v/a/1.mp3", 7) + fileLines("/v/a/2.jpg", 8)
            + fileLines("/v/a/s/3.mp3", 9) + fileLines("/v/a/u/5.mp3", 10) + fileLines("/v/a/s/t/4.mp3", 11) + "true",
        move("/v/x", "/v/a"));
    EXPECT_EQ("1 2 3 4 5 6\n1 2 3 4 5 6\n", liveRows());
    EXPECT_EQ("1 in -1\n2 in 1\n3 in 2\n4 in 3\n5 in 2\n6 in 1\n",
        query("select folder_id, 'in', parent_id from Folders where is_deleted = 0 order by folder_id"));
    const auto again = [](const std::string& what) {
        return LogLine { LOG_INFO, "Row for " + what + " exists in the DB so updating it\n" };
    };
    EXPECT_EQ(
        (std::vector<LogLine> { again("folder /v/a"), again("file /v/a/1.mp3"), again("file /v/a/2.jpg"),
            again("folder /v/a/s"), again("file /v/a/s/3.mp3"), again("folder /v/a/u"), again("file /v/a/u/5.mp3"),
            again("folder /v/a/s/t"), again("file /v/a/s/t/4.mp3"), timeTaken("/v/x", "/v/a") }),
        loggedLines());
}

TEST_F(MoveFolderTest, thePurgeRemovesTheOldGeneration)
{
    move("/v/a", "/v/x");
    db->purgeDeletedFolders(1000);
    db->purgeDeletedFiles(1000);
    EXPECT_EQ(afterMoveToX, dump());
    change("update Folders set last_updated_time = last_updated_time - 2000;"
           "update Files set last_updated_time = last_updated_time - 2000");
    db->purgeDeletedFolders(1000);
    db->purgeDeletedFiles(1000);
    EXPECT_EQ("1 in -1 '/v' live\n6 in 1 '/v/b' live\n7 in 1 '/v/x' live\n8 in 7 '/v/x/s' live\n"
              "9 in 7 '/v/x/u' live\n10 in 8 '/v/x/s/t' live\n",
        dumpFolders());
    EXPECT_EQ("6 in 6 '/v/b/6.mp3' live\n7 in 7 '/v/x/1.mp3' live\n8 in 7 '/v/x/2.jpg' live\n"
              "9 in 8 '/v/x/s/3.mp3' live\n10 in 9 '/v/x/u/5.mp3' live\n11 in 10 '/v/x/s/t/4.mp3' live\n",
        dumpFiles());
}

TEST_F(MoveFolderTest, underAnotherParentHangsItThere)
{
    EXPECT_EQ("Moving /v/a/s/t to /v/b/t\n" + fileLines("/v/b/t/4.mp3", 4) + "true", move("/v/a/s/t", "/v/b/t"));
    EXPECT_EQ("1 2 3 5 6 7\n1 2 3 5 6 7\n", liveRows());
    EXPECT_EQ("folder 7 in 6 '/v/b/t' 't' 104 204 live now\n"
              "file 7 in 7 '/v/b/t/4.mp3' '4.mp3' 14 504 304 404 live now\n",
        dump(7));
}

TEST_F(MoveFolderTest, underAMissingParentHangsItOnMinusOneAndTheParentIsMadeWithTheFirstChild)
{
    EXPECT_EQ("Moving /v/a/s to /v/m/s\n" + fileLines("/v/m/s/3.mp3", 3) + fileLines("/v/m/s/t/4.mp3", 4) + "true",
        move("/v/a/s", "/v/m/s"));
    EXPECT_EQ("folder 7 in -1 '/v/m/s' 's' 103 203 live now\n"
              "folder 8 in 7 '/v/m/s/t' 't' 104 204 live now\n"
              "folder 9 in 1 '/v/m' 'm' 0 0 live now\n"
              "file 7 in 7 '/v/m/s/3.mp3' '3.mp3' 13 503 303 403 live now\n"
              "file 8 in 8 '/v/m/s/t/4.mp3' '4.mp3' 14 504 304 404 live now\n",
        dump(7));
}

TEST_F(MoveFolderTest, deletedFoldersAndFilesStayBehind)
{
    change("update Folders set is_deleted = 1 where folder_id = 3; update Files set is_deleted = 1 where file_id = 1");
    EXPECT_EQ("Moving /v/a to /v/x\n" + fileLines("/v/x/2.jpg", 2) + fileLines("/v/x/u/5.mp3", 5) + "true",
        move("/v/a", "/v/x"));
    EXPECT_EQ("1 4 6 7 8\n3 4 6 7 8\n", liveRows()); // what hung below the deleted folder was not reached
}

TEST_F(MoveFolderTest, rowsThatAreLiveAtTheNewPlaceStayAsTheyAre)
{
    insertFolderRow("/v/x/s", 6);
    insertFileRow("/v/x/2.jpg", 6);
    EXPECT_EQ(printedByMoveToX + "true", move("/v/a", "/v/x"));
    EXPECT_EQ("folder 7 in 6 '/v/x/s' 's' 10 20 live\n"
              "folder 8 in 1 '/v/x' 'x' 102 202 live now\n"
              "folder 9 in 8 '/v/x/u' 'u' 105 205 live now\n"
              "folder 10 in 7 '/v/x/s/t' 't' 104 204 live now\n"
              "file 7 in 6 '/v/x/2.jpg' '2.jpg' 2 5 10 20 live\n"
              "file 8 in 8 '/v/x/1.mp3' '1.mp3' 11 501 301 401 live now\n"
              "file 9 in 7 '/v/x/s/3.mp3' '3.mp3' 13 503 303 403 live now\n"
              "file 10 in 9 '/v/x/u/5.mp3' '5.mp3' 15 505 305 405 live now\n"
              "file 11 in 10 '/v/x/s/t/4.mp3' '4.mp3' 14 504 304 404 live now\n",
        dump(7));
}

TEST_F(MoveFolderTest, anOldFileThatIsNoLongerFoundIsNotMarkedOnItsOwn)
{
    change("create trigger elsewhere after insert on Files when new.name = '1.mp3' begin"
           " update Files set is_deleted = 1 where file_id = 1; end");
    openNew();
    EXPECT_EQ("Moving /v/a to /v/x\nReplaced the path to /v/x/1.mp3\nInserting file /v/x/1.mp3\n"
            + fileLines("/v/x/2.jpg", 2) + fileLines("/v/x/s/3.mp3", 3) + fileLines("/v/x/u/5.mp3", 5)
            + fileLines("/v/x/s/t/4.mp3", 4) + "true",
        move("/v/a", "/v/x"));
    EXPECT_EQ(afterMoveToX, dump());
}

TEST_F(MoveFolderTest, keepsWholeSizesInNewRowsAndTheLow32BitsInRevivedOnes)
{
    change("update Files set size = " + std::to_string(4 * gibibyte + 7) + " where file_id <= 2");
    insertFileRow("/v/x/2.jpg", 9);
    change("update Files set is_deleted = 1 where file_id = 7");
    EXPECT_EQ(printedByMoveToX + "true", move("/v/a", "/v/x"));
    EXPECT_EQ("7 in 7 '/v/x/2.jpg' 7\n8 in 7 '/v/x/1.mp3' 4294967303\n",
        query("select file_id, 'in', folder_id, quote(path), size from Files where file_id in (7, 8)"
              " and is_deleted = 0 order by file_id"));
}

TEST_F(MoveFolderTest, hiddenIsWhatLiesBelowADot)
{
    move("/v/a/s", "/v/a/.s");
    EXPECT_EQ("folder 7 in 2 '/v/a/.s' '.s' 103 203 live hidden now\n"
              "folder 8 in 7 '/v/a/.s/t' 't' 104 204 live hidden now\n"
              "file 7 in 7 '/v/a/.s/3.mp3' '3.mp3' 13 503 303 403 live hidden now\n"
              "file 8 in 8 '/v/a/.s/t/4.mp3' '4.mp3' 14 504 304 404 live hidden now\n",
        dump(7));
    move("/v/a/.s", "/v/r");
    EXPECT_EQ("folder 9 in 1 '/v/r' 'r' 103 203 live now\n"
              "folder 10 in 9 '/v/r/t' 't' 104 204 live now\n"
              "file 9 in 9 '/v/r/3.mp3' '3.mp3' 13 503 303 403 live now\n"
              "file 10 in 10 '/v/r/t/4.mp3' '4.mp3' 14 504 304 404 live now\n",
        dump(9));
}

TEST_F(MoveFolderTest, namesAreBytes)
{
    const std::string from = "/v/" + oddName;
    const std::string to = "/v/x" + oddName;
    const std::string toInSql = "/v/x" + oddNameInSql;
    DBFolder folder = folderAt(from, 10, 20);
    db->insertFolder(folder, false);
    DBFile file = fileAt(from + "/" + oddName, 2, 5, 30, 40);
    db->insertFile(file);
    EXPECT_EQ("Moving " + from + " to " + to + "\n" + fileLines(to + "/" + oddName, 7) + "true", move(from, to));
    EXPECT_EQ((std::vector<LogLine> { timeTaken(from, to) }), loggedLines());
    EXPECT_EQ("folder 8 in 1 '" + toInSql + "' 'x" + oddNameInSql + "' 10 20 live now\nfile 8 in 8 '" + toInSql + "/"
            + oddNameInSql + "' '" + oddNameInSql + "' 2 5 30 40 live now\n",
        dump(8));
}

TEST_F(MoveFolderTest, isOnePieceInTheCallersTransaction)
{
    const std::string before = dump();
    db->beginTransaction();
    EXPECT_EQ(printedByMoveToX + "true", move("/v/a", "/v/x"));
    EXPECT_TRUE(db->isInTransaction());
    EXPECT_EQ(before, dump());
    db->commitTransaction();
    EXPECT_EQ(afterMoveToX, dump());
}

TEST_P(MoveFolderReplacedPathTest, isPrintedAndStored)
{
    const Replacement& c = GetParam();
    insertFolderRow(c.folder, -1);
    insertFileRow(c.file, 1);
    EXPECT_EQ("Moving " + std::string(c.folder) + " to " + c.to + "\n" + fileLines(c.newFile, 1) + "true",
        move(c.folder, c.to));
    const std::string stored = c.newFile != std::string(c.file) ? std::string(c.newFile) + "\n" : ""; // marked itself
    EXPECT_EQ(stored, query("select path from Files where is_deleted = 0"));
}

INSTANTIATE_TEST_SUITE_P(Catalogue, MoveFolderReplacedPathTest, testing::ValuesIn(replacements), nameOf<Replacement>);

TEST_F(MoveFolderTest, replacesTheBeginningOfAChildsPathWhateverItIs)
{
    change("update Folders set path = '/w/b/s' where folder_id = 3");
    EXPECT_EQ(printedByMoveToX + "true", move("/v/a", "/v/x"));
    EXPECT_EQ("8 in 7 '/v/x/s'\n",
        query("select folder_id, 'in', parent_id, quote(path) from Folders where folder_id = 8 and is_deleted = 0"));
}

TEST_P(MoveFolderFailuresTest, leaveWhatWasDoneBeforeUnlessTheCallerRollsBack)
{
    const std::string before = dump();
    refuse(GetParam().refused);
    db->beginTransaction();
    EXPECT_EQ(GetParam().printed + failed, move("/v/a", "/v/x"));
    db->rollbackTransaction();
    EXPECT_EQ(before, dump());
    EXPECT_EQ(GetParam().printed + failed, move("/v/a", "/v/x"));
    EXPECT_EQ(GetParam().liveRows, liveRows());
    EXPECT_EQ(errorLine(GetParam().logged), loggedLines());
}

INSTANTIATE_TEST_SUITE_P(Catalogue, MoveFolderFailuresTest, testing::ValuesIn(failures), nameOf<Failure>);

TEST_F(MoveFolderTest, failsUnderTheTextOfTheLookUpThatFails)
{
    change("drop table Files");
    openNew();
    EXPECT_EQ("Moving /v/a to /v/x\n" + failed, move("/v/a", "/v/x"));
    EXPECT_EQ(errorLine("getSimpleFileListByFolder() failed, handleStatus: 21\n"), loggedLines());
    change("drop table Folders");
    openNew();
    EXPECT_EQ("Moving /v/a to /v/b\n" + failed, outcomeOf([this] {
        dst = folderAt("/v/b");
        return db->moveFolder(src, dst);
    }));
    EXPECT_EQ(errorLine("folderExists() failed, handleStatus: 21\n"), loggedLines());
}
