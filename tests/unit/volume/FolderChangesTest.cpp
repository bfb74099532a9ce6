#include "support/FakeClock.h"
#include "volume/HandlerTest.h"

#include <filesystem>

namespace {

// New folders

TEST_F(FolderChangesTest, newFolderIsCataloguedWithItsContentAndWatched)
{
    put("Films/New/Deep/d.avi", "12", 300);
    put("Films/New/c.avi", "1", 200);
    settle({ "Films/New/Deep", "Films/New" });
    EXPECT_EQ("", newFolder("/Films/New"));
    EXPECT_EQ(beforeFiles
            + "folder 5 'New' in 4 /Films/New 10 written\nfolder 6 'Deep' in 5 /Films/New/Deep 10 written\n" + fileA
            + "\n" + fileB + "\nfile 3 'c.avi' in 5 /Films/New/c.avi 1 1 200 written\n"
            + "file 4 'd.avi' in 6 /Films/New/Deep/d.avi 1 2 300 written\n",
        rows());
    EXPECT_EQ(changeTime("Films/New"), createdTime("/Films/New"));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Finished walk. Walk started at " + root + "/Films/New\n"));
    EXPECT_EQ(nothing, loggedErrors());
    EXPECT_EQ(6, watches());
    EXPECT_TRUE(endsWatchOf("/Films/New"));
    EXPECT_TRUE(endsWatchOf("/Films/New/Deep"));
}

TEST_F(FolderChangesTest, newFolderWithALiveRowGetsItsTimeAndIsWalked)
{
    put("Music/Rock/new.mp3", "1", 300);
    setModifiedTime(volume.path("Music/Rock"), 77);
    EXPECT_EQ("", newFolder("/Music/Rock"));
    EXPECT_EQ(topFolders + "folder 2 'Rock' in 1 /Music/Rock 77 written\n" + live + "\n" + films + fileA + "\n" + fileB
            + "\nfile 3 'new.mp3' in 2 /Music/Rock/new.mp3 2 1 300 written\n",
        rows());
    EXPECT_EQ("50\n", createdTime("/Music/Rock"));
}

TEST_F(FolderChangesTest, newFolderWithALiveRowIsWrittenAlsoWhenNothingChanged)
{
    newFolder("/Music/Rock/Live");
    EXPECT_EQ(beforeFiles.substr(0, beforeFiles.find(films) - 1) + " written\n" + films + fileA + "\n" + fileB + "\n",
        rows());
    EXPECT_EQ("50\n", createdTime("/Music/Rock/Live"));
}

TEST_F(FolderChangesTest, newFolderBringsItsDeletedRowsBackToLife)
{
    deleteFolder("/Music/Rock");
    ageRows();
    newFolder("/Music/Rock");
    const std::string written = " written\n";
    EXPECT_EQ(topFolders + rock + written + live + written + films + fileA + written + fileB + written, rows());
    EXPECT_EQ(changeTime("Music/Rock"), createdTime("/Music/Rock"));
    EXPECT_EQ(info("Row for folder /Music/Rock exists in the DB so updating it\n"), firstLine());
}

TEST_F(FolderChangesTest, newFolderIsNoRoot)
{
    change("insert into Folders(folder_id, parent_id, path, name, created_time, modified_time, is_deleted,"
           " last_updated_time) values(9, -1, '', '', 50, 10, 0, 1)"); // as without crawl paths
    volume.makeFolder("Photos");
    newFolder("/Photos");
    EXPECT_EQ("9\n", query("select parent_id from Folders where path = '/Photos'"));
}

TEST_F(FolderChangesTest, rowHasTheTimesOfTheDiskBeforeTheWalk)
{
    volume.makeFolder("Films/New");
    volume.makeFolder("Films/Pop");
    setModifiedTime(volume.path("Films/New"), 77);
    setModifiedTime(volume.path("Films/Pop"), 88);
    std::string seen;
    const OnSemPost look([&] { // when the lock is released for the first time
        if (seen.empty())
            seen = query("select path, modified_time, created_time from Folders order by folder_id desc limit 1");
    });
    newFolder("/Films/New");
    EXPECT_EQ("/Films/New 77 " + changeTime("Films/New"), seen);
    seen.clear();
    moveFolder("/Music/Unknown", "/Films/Pop");
    EXPECT_EQ("/Films/Pop 88 " + changeTime("Films/Pop"), seen);
    seen.clear();
    setModifiedTime(volume.path("Films/Pop"), 99);
    newFolder("/Films/Pop"); // has a live row by now
    EXPECT_EQ(0U, seen.find("/Films/Pop 99 ")) << seen;
}

TEST_F(FolderChangesTest, newFolderIsWalkedAsAnOrdinaryFolder)
{
    volume.makeFolder("Films/New");
    int posts = 0;
    const OnSemPost loseTheRow([&] { // between the handler's work and its walk
        if (++posts == 1)
            change("delete from Folders where path = '/Films/New'");
    });
    newFolder("/Films/New");
    EXPECT_EQ("4\n", query("select parent_id from Folders where path = '/Films/New'")) << "not -1, a root's";
}

TEST_F(FolderChangesTest, newFolderBelowAnUnknownOneHangsOnNoParent)
{
    volume.makeFolder("Films/New/Deep");
    settle({ "Films/New/Deep" });
    newFolder("/Films/New/Deep");
    EXPECT_EQ(beforeFiles + "folder 5 'Deep' in -1 /Films/New/Deep 10 written\n" + fileA + "\n" + fileB + "\n", rows());
}

class FolderChangesOfNoFolderTest : public FolderChangesTest, public testing::WithParamInterface<const char*> {
protected:
    FolderChangesOfNoFolderTest()
    {
        const std::string kind = GetParam();
        for (const std::string below : { "Music/Rock", "Films/New" }) {
            volume.remove(below);
            if (kind == "file")
                put(below, "1", 1);
            if (kind == "link")
                replaceByLink(below, "Music");
        }
    }

    void expectNothingChanged() const
    {
        EXPECT_EQ(before, rows());
        EXPECT_EQ(4, watches());
    }
};

INSTANTIATE_TEST_SUITE_P(FolderChanges, FolderChangesOfNoFolderTest, testing::Values("gone", "file", "link"),
    [](const testing::TestParamInfo<const char*>& kind) { return std::string(kind.param); });

TEST_P(FolderChangesOfNoFolderTest, isIgnoredWhenNew)
{
    for (const std::string at : { "/Music/Rock", "/Films/New" }) {
        const LockTrace trace(*manager);
        EXPECT_EQ("", newFolder(at));
        EXPECT_EQ(nothing, loggedLines());
        EXPECT_EQ("()", trace.text());
    }
    expectNothingChanged();
}

TEST_P(FolderChangesOfNoFolderTest, isReportedOnStandardOutputAsTheGoalOfAMove)
{
    for (const std::string from : { "/Music/Rock", "/Music/Unknown" }) {
        const LockTrace trace(*manager);
        EXPECT_EQ(root + "/Films/New is not a dir\n", moveFolder(from, "/Films/New"));
        EXPECT_EQ(nothing, loggedLines());
        EXPECT_EQ("()", trace.text());
    }
    expectNothingChanged();
}

TEST_P(FolderChangesOfNoFolderTest, canBeDeleted)
{
    EXPECT_EQ("", deleteFolder("/Music/Rock"));
    EXPECT_EQ(topFolders + rock + gone + live + gone + films + fileA + gone + fileB + gone, rows());
}

// Deleted folders

TEST_F(FolderChangesTest, deletedFolderIsMarkedWithAllBelowItAndNothingElseHappens)
{
    volume.makeFolder("Music/Rocky");
    walk("/Music");
    change("update Folders set modified_time = 10");
    ageRows();
    ASSERT_TRUE(volume.exists("Music/Rock")); // the disk is not asked
    EXPECT_EQ("", deleteFolder("/Music/Rock"));
    EXPECT_EQ(topFolders + rock + gone + live + gone + films + "folder 5 'Rocky' in 1 /Music/Rocky 10\n" + fileA + gone
            + fileB + gone,
        rows());
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_EQ(5, watches()) << "ending its watch is up to the routing";
}

TEST_F(FolderChangesTest, deletingAFolderWithoutALiveRowDoesNothing)
{
    EXPECT_EQ("", deleteFolder("/Music/Unknown"));
    EXPECT_EQ(before, rows());
    change("update Folders set is_deleted = 1 where folder_id = 2");
    const std::string rowsBefore = rows();
    EXPECT_EQ("", deleteFolder("/Music/Rock"));
    EXPECT_EQ(rowsBefore, rows());
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_EQ(4, watches());
}

// Moved folders

TEST_F(FolderChangesTest, movedFolderGetsNewRowsAndItsWatchesTheirNewPaths)
{
    const ClockAt clock(1000000);
    rename("/Music/Rock", "/Films/Pop");
    EXPECT_EQ("Moving /Music/Rock to /Films/Pop\nReplaced the path to /Films/Pop/a.mp3\n"
              "Inserting file /Films/Pop/a.mp3\nDeleting file 1\nReplaced the path to /Films/Pop/Live/b.mp3\n"
              "Inserting file /Films/Pop/Live/b.mp3\nDeleting file 2\n",
        moveFolder("/Music/Rock", "/Films/Pop"));
    EXPECT_EQ(topFolders + rock + gone + live + gone + films
            + "folder 5 'Pop' in 4 /Films/Pop 10 written\nfolder 6 'Live' in 5 /Films/Pop/Live 10 written\n" + fileA
            + gone + fileB + gone + "file 3 'a.mp3' in 5 /Films/Pop/a.mp3 2 5 100 written\n"
            + "file 4 'b.mp3' in 6 /Films/Pop/Live/b.mp3 2 1 200 written\n",
        rows());
    EXPECT_EQ("50\n", createdTime("/Films/Pop"));
    EXPECT_EQ(info("The time taken to move /Music/Rock to /Films/Pop is 0\n"), firstLine());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Finished walk. Walk started at " + root + "/Films/Pop\n"));
    EXPECT_EQ(nothing, loggedErrors());
    EXPECT_EQ(4, watches());
    EXPECT_FALSE(endsWatchOf("/Music/Rock"));
    EXPECT_FALSE(endsWatchOf("/Music/Rock/Live"));
    EXPECT_TRUE(endsWatchOf("/Films/Pop"));
    EXPECT_TRUE(endsWatchOf("/Films/Pop/Live"));
}

TEST_F(FolderChangesTest, movedFolderIsWalkedForWhatTheMoveBroughtAndWithoutTheRootFlag)
{
    put("Music/Rock/new.mp3", "1", 300);
    rename("/Music/Rock", "/Films/Pop");
    int posts = 0;
    const OnSemPost loseTheRow([&] {
        if (++posts == 1)
            change("delete from Folders where path = '/Films/Pop'");
    });
    moveFolder("/Music/Rock", "/Films/Pop");
    EXPECT_EQ("4\n", query("select parent_id from Folders where path = '/Films/Pop'")) << "not -1, a root's";
    EXPECT_EQ("1\n", query("select count(*) from Files where path = '/Films/Pop/new.mp3' and is_deleted = 0"));
}

TEST_F(FolderChangesTest, movedFolderWithoutALiveSourceRowIsANewFolder)
{
    put("Films/Pop/c.mp3", "1", 300);
    settle({ "Films/Pop" });
    change("update Folders set is_deleted = 1 where folder_id = 2"); // a deleted row is none
    EXPECT_EQ("The old folder /Music/Rockdoes not exist. So treating the move as a new folder\n",
        moveFolder("/Music/Rock", "/Films/Pop"));
    EXPECT_EQ(topFolders + rock + " deleted\n" + live + "\n" + films + "folder 5 'Pop' in 4 /Films/Pop 10 written\n"
            + fileA + "\n" + fileB + "\nfile 3 'c.mp3' in 5 /Films/Pop/c.mp3 2 1 300 written\n",
        rows());
    EXPECT_EQ(changeTime("Films/Pop"), createdTime("/Films/Pop"));
    EXPECT_EQ(info("The old folder /Music/Rock does not exist. So treating the move as a new folder\n"), firstLine());
    EXPECT_EQ(nothing, loggedErrors());
    EXPECT_EQ(5, watches());
    EXPECT_TRUE(endsWatchOf("/Films/Pop"));
}

TEST_F(FolderChangesTest, moveOntoALiveRowLeavesBothAndWalks)
{
    volume.makeFolder("Films/Pop");
    settle({ "Films/Pop" });
    newFolder("/Films/Pop");
    ageRows();
    put("Films/Pop/c.mp3", "1", 300);
    settle({ "Films/Pop" });
    EXPECT_EQ("Moving /Music/Rock to /Films/Pop\n", moveFolder("/Music/Rock", "/Films/Pop"));
    EXPECT_EQ(beforeFiles + "folder 5 'Pop' in 4 /Films/Pop 10\n" + fileA + "\n" + fileB
            + "\nfile 3 'c.mp3' in 5 /Films/Pop/c.mp3 2 1 300 written\n",
        rows());
    EXPECT_EQ(0, timesLoggedFrom("The time taken to move"));
    EXPECT_EQ(1, walks());
}

TEST_F(FolderChangesTest, namesPassUnchanged)
{
    const std::string at = "/Films/" + oddName;
    const std::string moved = "/Music/moved" + oddName;
    volume.makeFolder("Films/" + oddName);
    settle({ "Films/" + oddName });
    newFolder(at);
    const std::string row = "folder 5 '" + oddName + "' in 4 " + at + " 10";
    EXPECT_EQ(beforeFiles + row + " written\n" + fileA + "\n" + fileB + "\n", rows());
    rename(at, moved);
    const ClockAt clock(1000000);
    EXPECT_EQ("Moving " + at + " to " + moved + "\n", moveFolder(at, moved));
    EXPECT_EQ(info("The time taken to move " + at + " to " + moved + " is 0\n"), firstLine());
    EXPECT_FALSE(endsWatchOf(at));
    EXPECT_TRUE(endsWatchOf(moved));
    EXPECT_EQ(root + at + " is not a dir\n", moveFolder(moved, at));
    deleteFolder(moved);
    EXPECT_EQ(beforeFiles + row + gone + "folder 6 'moved" + oddName + "' in 1 " + moved + " 10" + gone + fileA + "\n"
            + fileB + "\n",
        rows());
    EXPECT_EQ("The old folder " + at + "does not exist. So treating the move as a new folder\n", moveFolder(at, moved));
    EXPECT_EQ(info("The old folder " + at + " does not exist. So treating the move as a new folder\n"), firstLine());

    const BrokenStatement broken("select folder_id");
    moveFolder(at, moved);
    EXPECT_EQ(err("Error in moving folder " + oddName + " to moved" + oddName + "\n"), loggedErrors().back());
    newFolder(moved);
    EXPECT_EQ(err("Error in updating/inserting of the folder moved" + oddName + "\n"), loggedErrors().back());
    deleteFolder(moved);
    EXPECT_EQ(err("Error in deleting folder " + root + moved + "\n"), loggedErrors().back());
}

// The lock

constexpr const char* walkOfOneFolder = "()(BsC)()"; // before and after it: the care for the write-ahead log

TEST_F(FolderChangesTest, catalogueWorkIsDoneUnderTheLockAndTheWalkBegunWithoutIt)
{
    const std::string walked = walkOfOneFolder;
    volume.makeFolder("Films/New");
    const LockTrace trace(*manager);
    newFolder("/Films/New");
    newFolder("/Films/New");
    rename("/Films/New", "/Films/Newer");
    moveFolder("/Films/New", "/Films/Newer");
    moveFolder("/Films/Unknown", "/Films/Newer"); // and a live row
    deleteFolder("/Films/Newer");
    deleteFolder("/Films/Newer");
    EXPECT_EQ("(s)" + walked + "(s)" + walked + "(BsC)" + walked + "(BsC)" + walked + "(BsC)(BsC)", trace.text());
}

TEST_F(FolderChangesTest, whatIsNotOfTheVolumeIsIgnored)
{
    const std::string beside = volume.makeFolder("Music").substr(0, root.length()) + "-beside";
    std::filesystem::create_directories(beside + "/Rock");
    std::string inside = root + "/Music";
    const LockTrace trace(*manager);
    const auto tellEveryHandler = [&](std::string dir, const char* entry) {
        manager->handleNewFolder(dir, entry);
        manager->handleNewFile(dir, entry);
        manager->handleModifyFile(dir, entry);
        manager->handleDeleteFolder(dir, entry);
        manager->handleDeleteFile(dir, entry);
        manager->handleMoveFolder(dir, entry, inside, "Rock");
        manager->handleMoveFolder(inside, "Rock", dir, entry);
        manager->handleMoveFile(dir, entry, inside, "a.mp3");
        manager->handleMoveFile(inside, "a.mp3", dir, entry);
    };
    clearLog();
    for (const std::string& dir : { std::string(), std::string("/"), std::string("/x"), beside, root.substr(0, 4),
             root.substr(0, root.rfind('/')), root + "/..", root + "/../x", root + "/Music/../.." }) {
        tellEveryHandler(dir, "Rock");
        std::string changed = dir;
        manager->handleChangeFolder(changed);
    }
    for (const char* entry : { "", ".", "..", "Rock/Live" })
        tellEveryHandler(inside, entry);
    EXPECT_EQ("", trace.text());
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_EQ(before, rows());
    std::filesystem::remove_all(beside);
}

TEST_F(FolderChangesTest, diskIsLookedAtUnderTheLock)
{
    const auto whileWaiting = [this](const std::function<std::string()>& event) {
        volume.makeFolder("Films/New");
        const OnSemWait vanish([this](sem_t*) {
            volume.remove("Films/New");
            return false;
        });
        return event();
    };
    EXPECT_EQ("", whileWaiting([this] { return newFolder("/Films/New"); }));
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_EQ(
        root + "/Films/New is not a dir\n", whileWaiting([this] { return moveFolder("/Music/Rock", "/Films/New"); }));
    EXPECT_EQ(before, rows());
}

/// A user of the volume has put it in the place of a folder that is watched.
TEST_F(FolderChangesTest, nothingBehindALinkIsCatalogued)
{
    TemporaryFolder elsewhere;
    elsewhere.writeFile("secret.mp3");
    elsewhere.writeFile("Secret/2.mp3");
    volume.writeFile("Music/Rock/1.mp3");
    walk("/Music");
    volume.remove("Music/Rock");
    ASSERT_EQ(0, symlink(elsewhere.path().c_str(), volume.path("Music/Rock").c_str()));
    ageRows();
    const std::string known = rows();
    newFile("/Music/Rock/secret.mp3");
    modifyFile("/Music/Rock/secret.mp3");
    moveFile("/Music/Rock/1.mp3", "/Music/Rock/secret.mp3");
    newFolder("/Music/Rock/Secret");
    EXPECT_EQ(root + "/Music/Rock/Secret is not a dir\n", moveFolder("/Music/Rock", "/Music/Rock/Secret"));
    EXPECT_EQ(known, rows());
}

} // namespace
