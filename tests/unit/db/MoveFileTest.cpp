#include "db/MovesTest.h"

namespace {

constexpr long long gibibyte = 1LL << 30;

const std::string folders = "folder 1 in -1 '/v' 'v' 101 201 live\n"
                            "folder 2 in 1 '/v/a' 'a' 102 202 live\n"
                            "folder 3 in 1 '/v/b' 'b' 103 203 live\n";
const std::string source = "file 1 in 2 '/v/a/x.mp3' 'x.mp3' 11 501 301 401 live\n";
const std::string sourceMoved = "file 1 in 2 '/v/a/x.mp3' 'x.mp3' 11 501 301 401 deleted now\n";
const std::string neighbour = "file 2 in 3 '/v/b/y.mp3' 'y.mp3' 12 502 302 402 live\n";

class MoveFileTest : public MovesTest {
protected:
    MoveFileTest()
    {
        insertFolderRow("/v", -1);
        insertFolderRow("/v/a", 1);
        insertFolderRow("/v/b", 1);
        insertFileRow("/v/a/x.mp3", 2);
        insertFileRow("/v/b/y.mp3", 3);
        tellRowsApart();
    }

    /// Moves as a caller does who knows paths and the new category; `src` and `dst` are the records as they are left.
    std::string move(const std::string& from, const std::string& to)
    {
        src = fileAt(from);
        dst = fileAt(to);
        dst.setCategory(7);
        return move();
    }
    std::string move()
    {
        return outcomeOf([this] { return db->moveFile(src, dst); });
    }

    DBFile src;
    DBFile dst;
};

struct Refusal {
    const char* name;
    const char* change; ///< to the catalogue, before
    const char* from;
    const char* to;
    const char* srcAfter; ///< "" when as it was passed
    const char* dstAfter;
};

const char* const sourceRow = "1 in 2 '/v/a/x.mp3' 'x.mp3' category 11 size 501 modified 301 created 401";
const char* const neighbourRow = "2 in 3 '/v/b/y.mp3' 'y.mp3' category 12 size 502 modified 302 created 402";

// The source's folder is looked at first, then the destination, then the source; nothing is looked at after a no.
const Refusal refusals[] = {
    { "aSourceFolderWithoutARow", "", "/v/c/x.mp3", "/v/d/z.avi", "", "" },
    { "aSourceFolderWithoutARowBeforeALiveDestination", "", "/v/c/x.mp3", "/v/b/y.mp3", "", "" },
    { "aDeletedSourceFolder", "update Folders set is_deleted = 1 where folder_id = 2", "/v/a/x.mp3", "/v/d/z.avi", "",
        "" },
    { "aLiveDestination", "", "/v/a/x.mp3", "/v/b/y.mp3", "", neighbourRow },
    { "aLiveDestinationBeforeASourceWithoutARow", "", "/v/a/other.mp3", "/v/b/y.mp3", "", neighbourRow },
    { "itsOwnPlace", "", "/v/a/x.mp3", "/v/a/x.mp3", "", sourceRow },
    { "aSourceWithoutARow", "", "/v/a/other.mp3", "/v/d/z.avi", "", "" },
    { "aDeletedSource", "update Files set is_deleted = 1 where file_id = 1", "/v/a/x.mp3", "/v/d/z.avi", "", "" },
    { "aSourceAtTheTopOfAVolumeWithoutARow", "", "/x.mp3", "/v/d/z.avi", "", "" },
};

class MoveFileRefusalsTest : public MoveFileTest, public testing::WithParamInterface<Refusal> { };

struct Failure {
    const char* name;
    const char* refused;
    const char* logged;
    const char* outcome;
    std::string after; ///< the catalogue
};

const std::string madeFolder = "folder 4 in 1 '/v/c' 'c' 0 0 live now\n";

const Failure failures[] = {
    { "whenTheFolderCannotBeMade", "insert on Folders", "insertIndividualFolder() failed, handleStatus: 1\n", "",
        folders + source + neighbour },
    { "whenTheNewRowCannotBeMade", "insert on Files", "insertFile() failed, handleStatus: 1\n", "",
        folders + madeFolder + source + neighbour },
    { "whenTheOldRowCannotBeMarked", "update on Files", "deleteFile() failed, handleStatus: 1\n", "Deleting file 1\n",
        folders + madeFolder + source + neighbour + "file 3 in 4 '/v/c/z.avi' 'z.avi' 7 501 301 401 live now\n" },
};

class MoveFileFailuresTest : public MoveFileTest, public testing::WithParamInterface<Failure> { };

} // namespace

TEST_F(MoveFileTest, makesANewRowAndMarksTheOldOneDeleted)
{
    EXPECT_EQ("Deleting file 1\ntrue", move("/v/a/x.mp3", "/v/b/z.avi"));
    EXPECT_EQ(folders + sourceMoved + neighbour + "file 3 in 3 '/v/b/z.avi' 'z.avi' 7 501 301 401 live now\n", dump());
    EXPECT_EQ(std::vector<LogLine> {}, loggedLines());
    EXPECT_EQ(sourceRow, describe(src));
    EXPECT_EQ("1 in 3 '/v/b/z.avi' 'z.avi' category 7 size 501 modified 301 created 401", describe(dst));
}

TEST_F(MoveFileTest, runsTheseStatements)
{
    src = fileAt("/v/a/x.mp3");
    dst = fileAt("/v/b/z.avi", 7, 0, 0, 0);
    probe.clear();
    EXPECT_EQ("Deleting file 1\ntrue", move());
    EXPECT_EQ(liveFolder("/v/a") + liveFile("/v/b/z.avi") + liveFile("/v/a/x.mp3") + liveFolder("/v/b")
            + insertFile("/v/b/z.avi", 3, "501", "301,401,7") + deleteFile(1),
        probe.boundStatements());
}

TEST_F(MoveFileTest, withinItsFolderIsARename)
{
    EXPECT_EQ("Deleting file 1\ntrue", move("/v/a/x.mp3", "/v/a/z.avi"));
    EXPECT_EQ(folders + sourceMoved + neighbour + "file 3 in 2 '/v/a/z.avi' 'z.avi' 7 501 301 401 live now\n", dump());
}

TEST_P(MoveFileRefusalsTest, changeNothing)
{
    change(GetParam().change);
    const std::string before = dump();
    EXPECT_EQ("false", move(GetParam().from, GetParam().to));
    EXPECT_EQ(before, dump());
    EXPECT_EQ(std::vector<LogLine> {}, loggedLines());
    const auto orAsPassed = [](const std::string& after, const std::string& path, int category) {
        return after.empty() ? describe(fileAt(path, category, 0, 0, 0)) : after;
    };
    EXPECT_EQ(orAsPassed(GetParam().srcAfter, GetParam().from, -1), describe(src));
    EXPECT_EQ(orAsPassed(GetParam().dstAfter, GetParam().to, 7), describe(dst));
}

INSTANTIATE_TEST_SUITE_P(Catalogue, MoveFileRefusalsTest, testing::ValuesIn(refusals), nameOf<Refusal>);

TEST_F(MoveFileTest, looksTheSourceUpByItsNameToo)
{
    src = fileAt("/v/a/x.mp3");
    src.setName("other");
    dst = fileAt("/v/b/z.avi");
    EXPECT_EQ("false", move());
    EXPECT_EQ(folders + source + neighbour, dump());
}

TEST_F(MoveFileTest, makesTheFolderOfTheDestinationAndFilesItThere)
{
    EXPECT_EQ("Deleting file 1\ntrue", move("/v/a/x.mp3", "/v/c/z.avi"));
    EXPECT_EQ(
        folders + madeFolder + sourceMoved + neighbour + "file 3 in 4 '/v/c/z.avi' 'z.avi' 7 501 301 401 live now\n",
        dump());
    EXPECT_EQ(0, dst.getFolder_id()); // what insertFolder() left; the row has the true id, looked up again
    EXPECT_EQ(std::vector<LogLine> {}, loggedLines());
}

TEST_F(MoveFileTest, makesAChainOfFoldersAsInsertFolderMakesIt)
{
    EXPECT_EQ("Deleting file 1\ntrue", move("/v/a/x.mp3", "/v/c/d/z.avi"));
    EXPECT_EQ(1, dst.getFolder_id()); // the root at which the climb stopped
    EXPECT_EQ("Deleting file 2\ntrue", move("/v/b/y.mp3", "/v/e/f/g/y.avi"));
    EXPECT_EQ(0, dst.getFolder_id());
    EXPECT_EQ(folders
            + "folder 4 in -1 '/v/c/d' 'd' 0 0 live now\n"
              "folder 5 in -1 '/v/e/f/g' 'g' 0 0 live now\n"
              "folder 6 in 1 '/v/e' 'e' 0 0 live now\n"
            + sourceMoved + "file 2 in 3 '/v/b/y.mp3' 'y.mp3' 12 502 302 402 deleted now\n"
            + "file 3 in 4 '/v/c/d/z.avi' 'z.avi' 7 501 301 401 live now\n"
              "file 4 in 5 '/v/e/f/g/y.avi' 'y.avi' 7 502 302 402 live now\n",
        dump());
}

TEST_F(MoveFileTest, bringsADeletedFolderBack)
{
    change("update Folders set is_deleted = 1 where folder_id = 3");
    EXPECT_EQ("Deleting file 1\ntrue", move("/v/a/x.mp3", "/v/b/z.avi"));
    EXPECT_EQ("folder 1 in -1 '/v' 'v' 101 201 live\n"
              "folder 2 in 1 '/v/a' 'a' 102 202 live\n"
              "folder 3 in 1 '/v/b' 'b' 0 0 live now\n"
            + sourceMoved + neighbour + "file 3 in 3 '/v/b/z.avi' 'z.avi' 7 501 301 401 live now\n",
        dump());
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "Row for folder /v/b exists in the DB so updating it\n" } }),
        loggedLines());
}

TEST_F(MoveFileTest, bringsADeletedRowAtTheDestinationBackUnderItsId)
{
    change("update Files set is_deleted = 1, folder_id = 9 where file_id = 2");
    EXPECT_EQ("Deleting file 1\ntrue", move("/v/a/x.mp3", "/v/b/y.mp3"));
    EXPECT_EQ(folders + sourceMoved + "file 2 in 3 '/v/b/y.mp3' 'y.mp3' 7 501 301 401 live now\n", dump());
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "Row for file /v/b/y.mp3 exists in the DB so updating it\n" } }),
        loggedLines());
    EXPECT_EQ(2, dst.getFile_id());
}

TEST_F(MoveFileTest, thereAndBackEndsWithTheOldRow)
{
    move("/v/a/x.mp3", "/v/b/z.avi");
    EXPECT_EQ("Deleting file 3\ntrue", move("/v/b/z.avi", "/v/a/x.mp3"));
    EXPECT_EQ(folders + "file 1 in 2 '/v/a/x.mp3' 'x.mp3' 7 501 301 401 live now\n" + neighbour
            + "file 3 in 3 '/v/b/z.avi' 'z.avi' 7 501 301 401 deleted now\n",
        dump());
}

TEST_F(MoveFileTest, keepsTheCategoryOnlyWhenTheCallerPutsItIntoTheDestination)
{
    src = fileAt("/v/a/x.mp3");
    dst = fileAt("/v/b/x.mp3");
    EXPECT_EQ("Deleting file 1\ntrue", move());
    src = fileAt("/v/b/y.mp3");
    dst = fileAt("/v/a/y.mp3", 12, 0, 0, 0);
    EXPECT_EQ("Deleting file 2\ntrue", move());
    EXPECT_EQ("3 -1\n4 12\n", query("select file_id, category from Files where is_deleted = 0 order by file_id"));
}

TEST_F(MoveFileTest, takesTheRestFromTheRowAndNothingFromTheRecords)
{
    src = fileAt("/v/a/x.mp3", 91, 92, 93, 94);
    src.setFile_id(2);
    dst = fileAt("/v/b/z.avi", 7, 95, 96, 97);
    dst.setFolder_id(98);
    EXPECT_EQ("Deleting file 1\ntrue", move());
    EXPECT_EQ(folders + sourceMoved + neighbour + "file 3 in 3 '/v/b/z.avi' 'z.avi' 7 501 301 401 live now\n", dump());
}

TEST_F(MoveFileTest, cutsTheSizeTo32BitsLikeEveryLookUp)
{
    for (const auto& [stored, moved] : { std::pair { 2147483647LL, "2147483647\n" }, { 3 * gibibyte, "-1073741824\n" },
             { 4 * gibibyte + 7, "7\n" } }) {
        change("delete from Files where file_id > 2; update Files set is_deleted = 0, size = " + std::to_string(stored)
            + " where file_id = 1");
        EXPECT_EQ("Deleting file 1\ntrue", move("/v/a/x.mp3", "/v/b/z.avi"));
        EXPECT_EQ(moved, query("select size from Files where path = '/v/b/z.avi'")) << stored;
    }
}

TEST_F(MoveFileTest, theNewPathEndsWithTheNewName)
{
    src = fileAt("/v/a/x.mp3");
    dst = fileAt("/v/b/another", 7, 0, 0, 0);
    dst.setName("z.avi");
    EXPECT_EQ("Deleting file 1\ntrue", move());
    EXPECT_EQ("/v/b/z.avi", dst.getPath());
    EXPECT_EQ(folders + sourceMoved + neighbour + "file 3 in 3 '/v/b/z.avi' 'z.avi' 7 501 301 401 live now\n", dump());
}

TEST_F(MoveFileTest, aRowThatIsLiveOnlyUnderTheNewPathIsLeftAndTheOldOneMarkedAllTheSame)
{
    src = fileAt("/v/a/x.mp3");
    dst = fileAt("/v/b/another", 7, 0, 0, 0);
    dst.setName("y.mp3");
    EXPECT_EQ("Deleting file 1\ntrue", move());
    EXPECT_EQ(folders + sourceMoved + neighbour, dump());
}

TEST_F(MoveFileTest, hiddenIsWhatLiesBelowADot)
{
    EXPECT_EQ("Deleting file 1\ntrue", move("/v/a/x.mp3", "/v/a/.x.mp3"));
    EXPECT_EQ("file 3 in 2 '/v/a/.x.mp3' '.x.mp3' 7 501 301 401 live hidden now\n",
        dump().substr((folders + sourceMoved + neighbour).size()));
    EXPECT_EQ("Deleting file 3\ntrue", move("/v/a/.x.mp3", "/v/a/z.mp3"));
    EXPECT_EQ("/v/a/z.mp3 0\n", query("select path, is_hidden from Files where file_id = 4"));
}

TEST_F(MoveFileTest, toAndFromTheTopOfTheVolumeWithARowOfItsOwn)
{
    insertFolderRow("", -1);
    EXPECT_EQ("Deleting file 1\ntrue", move("/v/a/x.mp3", "/z.avi"));
    EXPECT_EQ("Deleting file 3\ntrue", move("/z.avi", "/v/b/x.mp3"));
    EXPECT_EQ("1 in 2 '/v/a/x.mp3' deleted\n2 in 3 '/v/b/y.mp3' live\n3 in 4 '/z.avi' deleted\n"
              "4 in 3 '/v/b/x.mp3' live\n",
        dumpFiles());
}

TEST_F(MoveFileTest, namesAreBytes)
{
    const std::string from = "/v/a/" + oddName;
    const std::string to = "/v/" + oddName + "/z" + oddName;
    const std::string fromInSql = "'/v/a/" + oddNameInSql + "' '" + oddNameInSql + "'";
    const std::string toInSql = "'/v/" + oddNameInSql + "/z" + oddNameInSql + "' 'z" + oddNameInSql + "'";
    DBFile odd = fileAt(from, 2, 5, 10, 20);
    db->insertFile(odd);
    EXPECT_EQ("Deleting file 3\ntrue", move(from, to));
    EXPECT_EQ("Deleting file 4\ntrue", move(to, from));
    EXPECT_EQ(folders + "folder 4 in 1 '/v/" + oddNameInSql + "' '" + oddNameInSql + "' 0 0 live now\n" + source
            + neighbour + "file 3 in 2 " + fromInSql + " 7 5 10 20 live now\nfile 4 in 4 " + toInSql
            + " 7 5 10 20 deleted now\n",
        dump());
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "Row for file " + from + " exists in the DB so updating it\n" } }),
        loggedLines());
}

TEST_P(MoveFileFailuresTest, leaveWhatWasDoneBeforeUnlessTheCallerRollsBack)
{
    const std::string before = dump();
    refuse(GetParam().refused);
    db->beginTransaction();
    EXPECT_EQ(GetParam().outcome + failed, move("/v/a/x.mp3", "/v/c/z.avi"));
    db->rollbackTransaction();
    EXPECT_EQ(before, dump());
    clearLog();
    EXPECT_EQ(GetParam().outcome + failed, move("/v/a/x.mp3", "/v/c/z.avi"));
    EXPECT_EQ(GetParam().after, dump());
    EXPECT_EQ(errorLine(GetParam().logged), loggedLines());
}

INSTANTIATE_TEST_SUITE_P(Catalogue, MoveFileFailuresTest, testing::ValuesIn(failures), nameOf<Failure>);

TEST_F(MoveFileTest, failsUnderTheTextOfTheLookUpThatFails)
{
    change("drop table Files");
    openNew();
    EXPECT_EQ(failed, move("/v/a/x.mp3", "/v/b/z.avi"));
    EXPECT_EQ(errorLine("fileExists() failed, handleStatus: 21\n"), loggedLines());
    change("drop table Folders");
    openNew();
    EXPECT_EQ(failed, move("/v/a/x.mp3", "/v/b/z.avi"));
    EXPECT_EQ(errorLine("folderExists() failed, handleStatus: 21\n"), loggedLines());
}
