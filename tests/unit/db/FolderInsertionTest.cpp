#include "db/CatalogueTest.h"
#include "support/SyslogCapture.h"

#include <syslog.h>

namespace {

class FolderInsertionTest : public CatalogueTest {
protected:
    FolderInsertionTest() { openNew(); }

    std::string row(int id) const { return dumpFolderRow(dbPath, id); }

    std::string isHidden(const std::string& path) const
    {
        return query("select is_hidden from Folders where path = '" + path + "'");
    }

    /// insertFolder() below the roots; the record as it is left.
    std::string insertBelow(const std::string& path)
    {
        DBFolder folder = folderAt(path, 100, 200);
        EXPECT_TRUE(db->insertFolder(folder, false));
        return describe(folder);
    }
};

} // namespace

TEST_F(FolderInsertionTest, oneRowIsInsertedAndItsIdReturned)
{
    insertFolderRow("/Music", -1);
    const long long start = secondsNow();
    DBFolder rock = folderAt("/Music/Rock", 100, 200);
    rock.setParent_id(1);
    rock.setName("not this");
    rock.setIs_deleted(true);
    EXPECT_EQ(2, db->insertIndividualFolder(rock));
    EXPECT_EQ("1 /Music/Rock Rock -1 200 100 0 0 0 0\n", row(2));
    EXPECT_EQ("1\n",
        query("select last_updated_time between " + std::to_string(start) + " and " + std::to_string(secondsNow())
            + " and typeof(last_updated_time) = 'integer' from Folders where folder_id = 2"));
    EXPECT_EQ("0 in 1 '/Music/Rock' 'not this' modified 100 created 200 deleted", describe(rock)); // without the id
    EXPECT_EQ(std::vector<LogLine> {}, loggedLines());
}

TEST_F(FolderInsertionTest, aDeletedRowComesBackUnderItsIdWithNewTimesAndTheParentAskedFor)
{
    insertFolderRow("/Music", -1);
    insertFolderRow("/Old", -1);
    insertFolderRow("/Music/.Rock", 2);
    change("update Folders set is_deleted = 1, category = 5, name = 'kept' where folder_id = 3");
    const long long start = secondsNow();
    DBFolder rock = folderAt("/Music/.Rock", 100, 200);
    rock.setParent_id(1);
    rock.setIs_deleted(true);
    EXPECT_EQ(3, db->insertIndividualFolder(rock));
    EXPECT_EQ("1 /Music/.Rock kept 5 200 100 0 0 0 0\n", row(3)); // is_hidden is not computed again
    EXPECT_EQ("1\n", query("select last_updated_time >= " + std::to_string(start) + " from Folders where folder_id=3"));
    EXPECT_EQ("3 in 1 '/Music/.Rock' 'kept' modified 100 created 200 live", describe(rock));
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "Row for folder /Music/.Rock exists in the DB so updating it\n" } }),
        loggedLines());
}

TEST_F(FolderInsertionTest, aLiveRowIsTreatedAsADeletedOne)
{
    insertFolderRow("/Music", -1);
    DBFolder music = folderAt("/Music", 100, 200);
    music.setParent_id(7);
    EXPECT_EQ(1, db->insertIndividualFolder(music));
    EXPECT_EQ("7 /Music Music -1 200 100 0 0 0 0\n", row(1));
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "Row for folder /Music exists in the DB so updating it\n" } }),
        loggedLines());
}

TEST_F(FolderInsertionTest, everyFolderBelowADotIsHidden)
{
    for (const char* const path : { "/.a", "/a/.b", "/a/.b/c", "/a.b/c", "/a./b", "/a/..b" }) {
        DBFolder folder = folderAt(path);
        db->insertIndividualFolder(folder);
    }
    EXPECT_EQ("1\n", isHidden("/.a"));
    EXPECT_EQ("1\n", isHidden("/a/.b"));
    EXPECT_EQ("1\n", isHidden("/a/.b/c"));
    EXPECT_EQ("0\n", isHidden("/a.b/c"));
    EXPECT_EQ("0\n", isHidden("/a./b"));
    EXPECT_EQ("1\n", isHidden("/a/..b"));
}

TEST_F(FolderInsertionTest, aRootHangsOnMinusOneAndItsRecordDoesNotGetTheId)
{
    DBFolder music = folderAt("/Media/Music", 100, 200);
    music.setParent_id(7);
    EXPECT_TRUE(db->insertFolder(music, true));
    EXPECT_EQ("1 in -1 '/Media/Music' live\n", dumpFolders()); // nothing above it
    EXPECT_EQ("-1 /Media/Music Music -1 200 100 0 0 0 0\n", row(1));
    EXPECT_EQ("0 in -1 '/Media/Music' '' modified 100 created 200 live", describe(music));
}

TEST_F(FolderInsertionTest, theRootOfAVolumeHasTheEmptyPath)
{
    DBFolder root = folderAt("", 100, 200);
    EXPECT_TRUE(db->insertFolder(root, true));
    EXPECT_EQ("1 in -1 '' live\n", dumpFolders());
    EXPECT_EQ("-1   -1 200 100 0 0 0 0\n", row(1));
}

TEST_F(FolderInsertionTest, aLiveFolderIsNotInsertedAgain)
{
    insertFolderRow("/Music", -1);
    insertFolderRow("/Music/Rock", 1);
    for (const bool isRoot : { false, true }) {
        DBFolder rock = folderAt("/Music/Rock", 100, 200);
        EXPECT_FALSE(db->insertFolder(rock, isRoot));
        EXPECT_EQ("2 in 1 '/Music/Rock' 'Rock' modified 10 created 20 live", describe(rock));
    }
    EXPECT_EQ("1 in -1 '/Music' live\n2 in 1 '/Music/Rock' live\n", dumpFolders());
    EXPECT_EQ("30\n30\n", query("select last_updated_time from Folders"));
    EXPECT_EQ(std::vector<LogLine> {}, loggedLines());
}

TEST_F(FolderInsertionTest, theRecordIsLeftWithTheRootAtWhichTheClimbStopped)
{
    insertFolderRow("/v", -1);
    insertFolderRow("/v/a", 1);
    EXPECT_EQ("1 in -1 '/v/a/b' 'v' modified 100 created 200 live", insertBelow("/v/a/b"));
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n3 in 2 '/v/a/b' live\n", dumpFolders());
    EXPECT_EQ("2 /v/a/b b -1 200 100 0 0 0 0\n", row(3));
}

TEST_F(FolderInsertionTest, theClimbPassesLiveFoldersThatAreNoRoots)
{
    insertFolderRow("/v", -1);
    insertFolderRow("/v/a", 1);
    insertFolderRow("/v/a/b", 2);
    EXPECT_EQ("1 in -1 '/v/a/b/c' 'v' modified 100 created 200 live", insertBelow("/v/a/b/c"));
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n3 in 2 '/v/a/b' live\n4 in 3 '/v/a/b/c' live\n", dumpFolders());
}

TEST_F(FolderInsertionTest, theClimbStopsAtARootInTheMiddle)
{
    insertFolderRow("/v/a", -1);
    insertFolderRow("/v/a/b", 1);
    EXPECT_EQ("1 in -1 '/v/a/b/c' 'a' modified 100 created 200 live", insertBelow("/v/a/b/c"));
    EXPECT_EQ("1 in -1 '/v/a' live\n2 in 1 '/v/a/b' live\n3 in 2 '/v/a/b/c' live\n", dumpFolders());
}

TEST_F(FolderInsertionTest, theRecordIsLeftWithoutAnIdWhenTheClimbEndsWithAnInsert)
{
    insertFolderRow("/v", -1);
    EXPECT_EQ("0 in 1 '/v/a' '' modified 100 created 200 live", insertBelow("/v/a"));
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n", dumpFolders());
}

TEST_F(FolderInsertionTest, aMissingParentIsPassedOverAndTheFolderHangsOnMinusOne)
{
    insertFolderRow("/v", -1);
    EXPECT_EQ("1 in -1 '/v/a/b' 'v' modified 100 created 200 live", insertBelow("/v/a/b"));
    EXPECT_EQ("1 in -1 '/v' live\n2 in -1 '/v/a/b' live\n", dumpFolders()); // no row for /v/a
}

TEST_F(FolderInsertionTest, theClimbGoesOnAtTheGrandparent)
{
    insertFolderRow("/v", -1);
    EXPECT_EQ("0 in 1 '/v/a/b/c' '' modified 100 created 200 live", insertBelow("/v/a/b/c"));
    EXPECT_EQ("1 in -1 '/v' live\n2 in -1 '/v/a/b/c' live\n3 in 1 '/v/a' live\n", dumpFolders());
    EXPECT_EQ("1 /v/a a -1 0 0 0 0 0 0\n", row(3)); // what is made on the way has no times
}

TEST_F(FolderInsertionTest, aParentThatIsARootIsTakenOffTheClimbSoThatWhatIsAboveItIsMade)
{
    insertFolderRow("/media/v", -1);
    EXPECT_EQ("0 in -1 '/media/v/a' '' modified 100 created 200 live", insertBelow("/media/v/a"));
    EXPECT_EQ("1 in -1 '/media/v' live\n2 in 1 '/media/v/a' live\n3 in -1 '/media' live\n", dumpFolders());
}

TEST_F(FolderInsertionTest, aTopLevelFolderHangsOnTheVolumesOwnRow)
{
    insertFolderRow("", -1);
    EXPECT_EQ("0 in 1 '/Music' '' modified 100 created 200 live", insertBelow("/Music"));
    EXPECT_EQ("1 in -1 '' live\n2 in 1 '/Music' live\n", dumpFolders());
}

TEST_F(FolderInsertionTest, aTopLevelFolderHangsOnMinusOneWhenTheVolumeHasNoRowOfItsOwn)
{
    EXPECT_EQ("0 in -1 '/Music' '' modified 100 created 200 live", insertBelow("/Music"));
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(FolderInsertionTest, anEmptyPathBelowTheRootsInsertsNothing)
{
    EXPECT_EQ("0 in 0 '' '' modified 100 created 200 live", insertBelow(""));
    EXPECT_EQ("", dumpFolders());
}

TEST_F(FolderInsertionTest, needlessSlashesAreDroppedAndThenTheTimesAreNotTaken)
{
    insertFolderRow("/v", -1);
    insertFolderRow("/v/a", 1);
    insertBelow("/v//a/b/");
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n3 in 2 '/v/a/b' live\n", dumpFolders());
    EXPECT_EQ("2 /v/a/b b -1 0 0 0 0 0 0\n", row(3));
}

TEST_F(FolderInsertionTest, aDeletedFolderAndDeletedAncestorsComeBackInTheClimb)
{
    insertFolderRow("/v", -1);
    insertFolderRow("/v/a", 1);
    insertFolderRow("/v/a/b", 2);
    insertFolderRow("/v/a/b/c", 3);
    change("update Folders set is_deleted = 1 where folder_id in (2, 4)");
    EXPECT_EQ("2 in 1 '/v/a/b/c' 'a' modified 100 created 200 live", insertBelow("/v/a/b/c"));
    EXPECT_EQ("1 in -1 '/v' live\n2 in 1 '/v/a' live\n3 in 2 '/v/a/b' live\n4 in 3 '/v/a/b/c' live\n", dumpFolders());
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "Row for folder /v/a/b/c exists in the DB so updating it\n" },
                  { LOG_INFO, "Row for folder /v/a exists in the DB so updating it\n" } }),
        loggedLines());
}

TEST_F(FolderInsertionTest, theParentLookUpTakesOnePathOffTheStack)
{
    insertFolderRow("/v", -1);
    std::stack<std::string> paths;
    paths.push("/v");
    paths.push("/nowhere");
    EXPECT_EQ(-1, db->findParentIdForFolderPath(&paths));
    ASSERT_EQ(1U, paths.size());
    EXPECT_EQ("/v", paths.top());
    EXPECT_EQ(1, db->findParentIdForFolderPath(&paths));
    EXPECT_TRUE(paths.empty());
}

TEST_F(FolderInsertionTest, theParentLookUpKnowsNoDeletedRow)
{
    insertFolderRow("/v", -1);
    change("update Folders set is_deleted = 1");
    std::stack<std::string> paths;
    paths.push("/v");
    EXPECT_EQ(-1, db->findParentIdForFolderPath(&paths));
}

TEST_F(FolderInsertionTest, anEmptyStackMeansTheEmptyPath)
{
    std::stack<std::string> paths;
    EXPECT_EQ(-1, db->findParentIdForFolderPath(&paths));
    insertFolderRow("", -1);
    EXPECT_EQ(1, db->findParentIdForFolderPath(&paths));
}
