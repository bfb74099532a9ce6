#include "watch/RoutingFixture.h"

namespace fs = std::filesystem;

namespace {

/// What is watched after a folder was deleted or moved.
class WatchesAfterEventsTest : public RoutingFixture { };

// Deleted folders

TEST_F(WatchesAfterEventsTest, aDeletedFolderLosesItsWatchAfterTheListenerWasTold)
{
    watchNew("a/gone");
    watchNew("a/gone/below");
    watchNew("a/gone too");
    std::string seen;
    onlooker.look = [&] { seen = watches(); };
    deleteFolder(1, "gone");
    EXPECT_EQ("1 a music\n2 p photos\n3 gone music\n4 below music\n5 gone too music\n", seen);
    EXPECT_EQ("1 a music\n2 p photos\n4 below music\n5 gone too music\n", watches());
    EXPECT_EQ(6, watch(a + "/gone")) << "the kernel's watch was ended as well";
}

TEST_F(WatchesAfterEventsTest, aDeletedFolderLosesItsWatchAlsoWithoutAListener)
{
    const std::string gone = watchNew("a/gone");
    watcher->removeVolumeWatchListener(music);
    deleteFolder(1, "gone");
    EXPECT_EQ(std::vector<LogLine> { noTarget("music") }, loggedLines());
    EXPECT_EQ(0, unwatch(gone));
    EXPECT_EQ(2, watcher->numWatches());
}

TEST_F(WatchesAfterEventsTest, aDeletedFolderIsSoughtAtThePathThatItsParentHasAfterTheCall)
{
    watchNew("a/gone");
    const std::string renamed = folder.path("renamed");
    onlooker.look = [&] {
        fs::rename(a, renamed);
        watch(renamed);
        watch(renamed + "/gone");
    };
    deleteFolder(1, "gone");
    EXPECT_EQ("1 renamed music\n2 p photos\n", watches());
}

TEST_F(WatchesAfterEventsTest, aDeletedFolderOfAnUnknownWatchIsSoughtAtTheTop)
{
    ASSERT_EQ(3, watch("/tmp"));
    deleteFolder(unknown, "tmp");
    EXPECT_EQ(std::vector<LogLine> { noTarget("") }, loggedLines());
    EXPECT_EQ(0, unwatch("/tmp"));
}

TEST_F(WatchesAfterEventsTest, aDeletedFolderWithoutAWatchChangesNoOther)
{
    deleteFolder(1, "never watched");
    EXPECT_EQ("delete folder " + a + " never watched\n", calls());
    EXPECT_EQ("1 a music\n2 p photos\n", watches());
}

// The watches of what was moved

TEST_F(WatchesAfterEventsTest, aMovedFileLeavesTheWatches)
{
    watchNew("a/old");
    moveFile(1, "old", 1, "new");
    EXPECT_EQ("1 a music\n2 p photos\n3 old music\n", watches());
}

TEST_F(WatchesAfterEventsTest, aMoveWithoutANameLeavesTheWatches)
{
    EventRecord nameless(1, "next");
    nameless.get()->len = 0;
    EventRecord named(1, "x");
    watcher->handleMoveFile(nameless.get(), nameless.get());
    watcher->handleMoveFolder(nameless.get(), nameless.get());
    watcher->handleMoveFolder(named.get(), nameless.get());
    watcher->handleMoveFolder(nameless.get(), named.get());
    EXPECT_EQ("move file " + a + "  " + a + " \nmove folder " + a + "  " + a + " \nmove folder " + a + " x " + a
            + " \nmove folder " + a + "  " + a + " x\n",
        calls());
    EXPECT_EQ("1 a music\n2 p photos\n", watches());
}

TEST_F(WatchesAfterEventsTest, aMovedFolderGetsAWatchOfItsOwnAtTheNewPlaceAfterTheListenerWasTold)
{
    const std::string below = watchNew("a/old/below");
    watchNew("a/old");
    fs::rename(a + "/old", a + "/new");
    std::string seen;
    onlooker.look = [&] { seen = watches(); };
    moveFolder(1, "old", 1, "new");
    EXPECT_EQ("1 a music\n2 p photos\n3 below music\n4 old music\n", seen);
    EXPECT_EQ("1 a music\n2 p photos\n3 below music\n5 new music\n", watches());
    EXPECT_EQ(3, unwatch(below)) << "those below are left to the listener's walk";
}

TEST_F(WatchesAfterEventsTest, aMovedFolderKeepsTheWatchThatTheListenersWalkToldItsNewPath)
{
    watchNew("a/old");
    fs::rename(a + "/old", a + "/new");
    onlooker.look = [&] { EXPECT_EQ(3, watch(a + "/new")); };
    moveFolder(1, "old", 1, "new");
    EXPECT_EQ("1 a music\n2 p photos\n3 new music\n", watches());
}

TEST_F(WatchesAfterEventsTest, aFolderThatCrossedIsWatchedForTheVolumeThatItCameTo)
{
    watchNew("a/old");
    fs::rename(a + "/old", p + "/new");
    moveFolder(1, "old", 2, "new");
    EXPECT_EQ(std::vector<LogLine> { crossing("music", "photos") }, loggedLines());
    EXPECT_EQ("", calls());
    EXPECT_EQ("1 a music\n2 p photos\n4 new photos\n", watches());
}

TEST_F(WatchesAfterEventsTest, theWatchMovesAlsoWithoutAListener)
{
    watchNew("a/old");
    fs::rename(a + "/old", a + "/new");
    watcher->removeVolumeWatchListener(music);
    moveFolder(1, "old", 1, "new");
    EXPECT_EQ(std::vector<LogLine> { noTarget("music") }, loggedLines());
    EXPECT_EQ(0, unwatch(a + "/old"));
    EXPECT_EQ(4, unwatch(a + "/new"));
}

TEST_F(WatchesAfterEventsTest, aFolderThatCameFromAnUnknownWatchIsWatched)
{
    fs::create_directory(a + "/new");
    moveFolder(unknown, "old", 1, "new");
    EXPECT_EQ("1 a music\n2 p photos\n3 new music\n", watches());
}

TEST_F(WatchesAfterEventsTest, aFolderThatWentToAnUnknownWatchOnlyLosesItsOwn)
{
    watchNew("a/old");
    moveFolder(1, "old", unknown, "nowhere to be found");
    EXPECT_EQ("1 a music\n2 p photos\n", watches());
}

TEST_F(WatchesAfterEventsTest, aFolderThatIsGoneFromItsNewPlaceIsNotWatched)
{
    watchNew("a/old");
    moveFolder(1, "old", 1, "gone");
    EXPECT_EQ("move folder " + a + " old " + a + " gone\n", calls());
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_EQ("1 a music\n2 p photos\n", watches());
}

} // namespace
