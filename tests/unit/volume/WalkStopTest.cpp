#include "SystemHooks.h"
#include "VolumeTest.h"

namespace {

/// A stop in the middle of a walk: what was begun is kept, what was not yet looked at is not taken for gone.
class WalkStop : public VolumeTest {
protected:
    WalkStop() { initializeQuietly(); }

    /// Asks for the stop when that many entries of the folder were read, the two dots not counted.
    OnReaddir::Hook stopAfter(const std::string& below, int entries)
    {
        return [this, below, left = entries](const std::string& folder, dirent* entry) mutable {
            if (folder == root + below && entry != nullptr && entry->d_name[0] != '.' && --left == 0)
                manager->requestStop();
            return entry;
        };
    }

    /// Asks for the stop at the end of the folder.
    OnReaddir::Hook stopAtTheEndOf(const std::string& below)
    {
        return [this, below](const std::string& folder, dirent* entry) {
            if (folder == root + below && entry == nullptr)
                manager->requestStop();
            return entry;
        };
    }
};

TEST_F(WalkStop, beforeTheWalkLeavesOnlyTheLastLines)
{
    volume.makeFolder("Music");
    manager->requestStop();
    walk("/Music");
    EXPECT_EQ(4U, loggedLines().size());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Finished walk. Walk started at " + root + "/Music\n"));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 0/0\n"));
    EXPECT_EQ("", folders());
}

TEST_F(WalkStop, endsTheReadingOfTheFolderAndKeepsItsRow)
{
    for (const char* file : { "Music/a", "Music/b", "Music/c" })
        volume.writeFile(file);
    {
        const OnReaddir stop(stopAfter("/Music", 2));
        walk("/Music");
    }
    EXPECT_EQ("[/Music] root\n", folders()); // committed
    EXPECT_EQ("", files());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 1/2\n"));
    expectSummary("/Music", 0, 0, 0, 0);
}

TEST_F(WalkStop, takesNothingForGoneThatWasNotRead)
{
    for (const char* file : { "Music/a", "Music/b", "Music/c" })
        volume.writeFile(file);
    volume.makeFolder("Music/x");
    volume.makeFolder("Music/y");
    walk("/Music");
    ageRows();
    {
        const OnReaddir stop(stopAfter("/Music", 1));
        walk("/Music");
    }
    EXPECT_EQ("", writtenRows());
    EXPECT_EQ("[/Music/a] 4 in [/Music]\n[/Music/b] 4 in [/Music]\n[/Music/c] 4 in [/Music]\n", files());
}

TEST_F(WalkStop, mergesNothingMore)
{
    volume.writeFile("Music/a");
    volume.makeFolder("Music/x");
    walk("/Music");
    volume.remove("Music/a");
    volume.remove("Music/x");
    volume.writeFile("Music/b");
    {
        const OnReaddir stop(stopAtTheEndOf("/Music"));
        walk("/Music");
    }
    EXPECT_EQ("[/Music] root\n[/Music/x] in [/Music]\n", folders());
    EXPECT_EQ("[/Music/a] 4 in [/Music]\n", files());
    expectSummary("/Music", 0, 0, 0, 0);
}

TEST_F(WalkStop, dropsTheRestOfTheQueue)
{
    volume.makeFolder("Music/x/y");
    {
        const OnReaddir stop(stopAtTheEndOf("/Music"));
        walk("/Music");
    }
    EXPECT_EQ("[/Music] root\n", folders());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 1/0\n"));
    EXPECT_EQ(1, timesLoggedFrom("Finished walk."));
}

TEST_F(WalkStop, ofTheThreadEndsEveryCrawlPathAtOnce)
{
    configure({ "/a", "/b" });
    volume.makeFolder("a/x");
    volume.makeFolder("b");
    {
        const OnReaddir stop(stopAtTheEndOf("/a"));
        walkOnThread();
        ASSERT_TRUE(waitUntil([] { return timesLoggedFrom("Actively watching") == 2; }));
        destroy();
    }
    EXPECT_EQ("[/a] root\n", folders());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Finished walk. Walk started at " + root + "/a\n"));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Finished walk. Walk started at " + root + "/b\n"));
}

TEST_F(WalkStop, nextStartPutsEverythingRight)
{
    for (const char* file : { "Music/a", "Music/b/c", "Music/d/e" })
        volume.writeFile(file);
    {
        const OnReaddir stop(stopAtTheEndOf("/Music"));
        walk("/Music");
    }
    destroy();
    manager = std::make_unique<VolumeManager>();
    initializeQuietly();
    walk("/Music");
    EXPECT_EQ("[/Music] root\n[/Music/b] in [/Music]\n[/Music/d] in [/Music]\n", folders());
    EXPECT_EQ("[/Music/a] 4 in [/Music]\n[/Music/b/c] 4 in [/Music/b]\n[/Music/d/e] 4 in [/Music/d]\n", files());
}

} // namespace
