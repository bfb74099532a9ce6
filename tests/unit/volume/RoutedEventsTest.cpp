#include "volume/HandlerTest.h"
#include "watch/EventRecord.h"
#include "watch/VolumeWatcher.h"

namespace {

/// A manager as the watcher's listener, and the folders that it walked under watch.
class RoutedEventsTest : public FolderChangesTest {
protected:
    RoutedEventsTest() { watcher->addVolumeWatchListener(name, manager.get()); }

    int descriptorOf(const std::string& below)
    {
        std::string path = root + below;
        return watcher->addDirectoryToWatch(name, path);
    }
    EventRecord event(const std::string& dir, const std::string& entry) { return { descriptorOf(dir), entry }; }

    VolumeWatcher* const watcher = VolumeWatcher::getInstance();
};

TEST_F(RoutedEventsTest, deletedFolderLosesItsRowsAndItsWatchAndThoseBelowKeepTheirs)
{
    volume.remove("Music/Rock");
    watcher->handleDeleteFolder(event("/Music", "Rock").get());
    EXPECT_EQ(topFolders + rock + gone + live + gone + films + fileA + gone + fileB + gone, rows());
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_EQ(3, watches());
    EXPECT_FALSE(endsWatchOf("/Music/Rock"));
    EXPECT_TRUE(endsWatchOf("/Music/Rock/Live"));
}

TEST_F(RoutedEventsTest, movedFolderKeepsItsWatchesUnderTheirNewPaths)
{
    const int wd = descriptorOf("/Music/Rock");
    const int wdBelow = descriptorOf("/Music/Rock/Live");
    rename("/Music/Rock", "/Films/Pop");
    watcher->handleMoveFolder(event("/Music", "Rock").get(), event("/Films", "Pop").get());
    EXPECT_EQ(nothing, loggedErrors());
    EXPECT_EQ(4, watches());
    EXPECT_FALSE(endsWatchOf("/Music/Rock"));
    EXPECT_FALSE(endsWatchOf("/Music/Rock/Live"));
    EXPECT_EQ(wd, descriptorOf("/Films/Pop"));
    EXPECT_EQ(wdBelow, descriptorOf("/Films/Pop/Live"));
    EXPECT_EQ("[/Films/Pop/Live/b.mp3] 2 in [/Films/Pop/Live]\n[/Films/Pop/a.mp3] 2 in [/Films/Pop]\n",
        query("select '[' || path || '] 2 in [' || (select path from Folders p where p.folder_id = f.folder_id) || ']'"
              " from Files f where is_deleted = 0 order by path"));
}

TEST_F(RoutedEventsTest, folderWhoseMoveFailedIsWatchedAtItsNewPlaceAndTheNextWalkDoesTheRest)
{
    rename("/Music/Rock", "/Films/Pop");
    {
        const BrokenStatement broken("COMMIT");
        watcher->handleMoveFolder(event("/Music", "Rock").get(), event("/Films", "Pop").get());
    }
    EXPECT_EQ(std::vector<LogLine> { err("Error in moving folder Rock to Pop\n") }, loggedErrors());
    EXPECT_EQ(before, rows());
    EXPECT_EQ(4, watches());
    EXPECT_FALSE(endsWatchOf("/Music/Rock"));
    EXPECT_TRUE(endsWatchOf("/Films/Pop"));
    EXPECT_TRUE(endsWatchOf("/Music/Rock/Live"));
    EXPECT_EQ(nothing, errorsOfAFullWalk());
    EXPECT_TRUE(endsWatchOf("/Films/Pop/Live"));
    EXPECT_EQ("[/Films/Pop/Live/b.mp3] 2 in [/Films/Pop/Live]\n[/Films/Pop/a.mp3] 2 in [/Films/Pop]\n"
              "[/Music/Rock/Live/b.mp3] 2 in [/Music/Rock/Live] deleted\n"
              "[/Music/Rock/a.mp3] 2 in [/Music/Rock] deleted\n",
        files());
}

TEST_F(RoutedEventsTest, moveOntoWhatIsNoFolderTakesTheOldWatchAway)
{
    put("Films/Pop", "a file", 1);
    testing::internal::CaptureStdout();
    watcher->handleMoveFolder(event("/Music", "Rock").get(), event("/Films", "Pop").get());
    EXPECT_EQ(root + "/Films/Pop is not a dir\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(before, rows());
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_FALSE(endsWatchOf("/Music/Rock"));
    EXPECT_TRUE(endsWatchOf("/Films/Pop")) << "a file can be watched as well, and no one asks what it is";
}

TEST_F(RoutedEventsTest, newFolderIsWatched)
{
    volume.makeFolder("Films/New/Deep");
    watcher->handleNewFolder(event("/Films", "New").get());
    EXPECT_EQ(6, watches());
    EXPECT_TRUE(endsWatchOf("/Films/New"));
    EXPECT_TRUE(endsWatchOf("/Films/New/Deep"));
}

TEST_F(RoutedEventsTest, filesOfAnyNameAreFollowed)
{
    const auto row = [](int id, const std::string& fileName, const std::string& rest) {
        return "file " + std::to_string(id) + " '" + fileName + "' in 4 /Films/" + fileName + " 2 " + rest + "\n";
    };
    const std::string moved = "moved" + oddName;
    put("Films/" + oddName, "1", 200);
    watcher->handleNewFile(event("/Films", oddName).get());
    EXPECT_EQ(before + row(3, oddName, "1 200 written"), rows());
    put("Films/" + oddName, "12", 200);
    watcher->handleModifyFile(event("/Films", oddName).get());
    EXPECT_EQ(before + row(3, oddName, "2 200 written"), rows());
    rename("/Films/" + oddName, "/Films/" + moved);
    watcher->handleMoveFile(event("/Films", oddName).get(), event("/Films", moved).get());
    EXPECT_EQ(before + row(3, oddName, "2 200 deleted written") + row(4, moved, "2 200 written"), rows());
    watcher->handleDeleteFile(event("/Films", moved).get());
    EXPECT_EQ(before + row(3, oddName, "2 200 deleted written") + row(4, moved, "2 200 deleted written"), rows());
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_EQ(4, watches());
}

TEST_F(RoutedEventsTest, changeInACrawlPathIsWalkedAsARootAndBelowItNot)
{
    const auto goingToWalk = [this](const std::string& below, const char* found) {
        return info("Going to walk " + root + below + " in handleChangeFolder and found is " + found + "\n");
    };
    clearLog();
    watcher->handleChangeFolder(event("/Music", "").get());
    EXPECT_EQ(goingToWalk("/Music", "1"), firstLine());
    clearLog();
    watcher->handleChangeFolder(event("/Music/Rock", "").get());
    EXPECT_EQ(goingToWalk("/Music/Rock", "0"), firstLine());
}

} // namespace
