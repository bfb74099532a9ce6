#include "support/SqlTexts.h"
#include "volume/HandlerTest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace {

/// The walk of a volume as its thread does it: which folders it starts from, and what it drops before.
class VolumeManagerWalkTest : public VolumeTest {
protected:
    VolumeManagerWalkTest() { initializeQuietly(); }

    /// What was logged, less the lines about single folders and the times.
    std::vector<LogLine> story() const
    {
        std::vector<LogLine> lines = loggedLines();
        const auto isDetail = [](const LogLine& line) {
            for (const char* start : { "For folder", "Add f", "Total", "The time", "Actively", "pthread_sigmask" }) {
                if (line.text.rfind(start, 0) == 0)
                    return true;
            }
            return false;
        };
        lines.erase(std::remove_if(lines.begin(), lines.end(), isDetail), lines.end());
        return lines;
    }

    LogLine finished(const std::string& below) const
    {
        return info("Finished walk. Walk started at " + root + below + "\n");
    }
};

TEST_F(VolumeManagerWalkTest, withoutCrawlPathsTheVolumeItselfIsTheStart)
{
    configure({});
    volume.writeFile("Music/a.mp3");
    walkOnThread();
    EXPECT_EQ(
        (std::vector<LogLine> { info("Crawl paths is empty so starting at " + root + "\n"), finished("") }), story());
    EXPECT_EQ("[] root\n[/Music] in []\n", folders());
    EXPECT_EQ("[/Music/a.mp3] 2 in [/Music]\n", files());
}

TEST_F(VolumeManagerWalkTest, volumeThatTheConfigurationDoesNotNameHasNoCrawlPaths)
{
    walkOnThread();
    EXPECT_EQ(
        (std::vector<LogLine> { info("Crawl paths is empty so starting at " + root + "\n"), finished("") }), story());
}

TEST_F(VolumeManagerWalkTest, withoutCrawlPathsAFormerStartFolderFindsItsParent)
{
    configure({});
    volume.makeFolder("Music");
    walk("/Music");
    EXPECT_EQ("[/Music] root\n", folders());
    walkOnThread();
    EXPECT_EQ("[] root\n[/Music] in []\n", folders());
}

TEST_F(VolumeManagerWalkTest, crawlPathsAreWalkedInTheirOrderAsRoots)
{
    configure({ "/b", "/a" });
    volume.makeFolder("a/x");
    volume.makeFolder("b");
    volume.makeFolder("c");
    walkOnThread();
    EXPECT_EQ((std::vector<LogLine> { finished("/b"), finished("/a") }), story());
    EXPECT_EQ("[/a] root\n[/a/x] in [/a]\n[/b] root\n", folders());
}

TEST_F(VolumeManagerWalkTest, topLevelFolderThatIsNoCrawlPathIsRemovedFirst)
{
    configure({});
    volume.makeFolder("a");
    volume.writeFile("c/deep/z.mp3");
    walk("/a");
    walk("/c");
    configure({ "/a", "/b" });
    volume.makeFolder("b");
    walkOnThread();
    EXPECT_EQ((std::vector<LogLine> { info("Checking if the folder /a exists in the path list"),
                  info("Checking if the folder /c exists in the path list"), info("not found /c so removing\n"),
                  finished("/a"), finished("/b") }),
        story());
    EXPECT_EQ("[/a] root\n[/b] root\n[/c] root deleted\n[/c/deep] in [/c] deleted\n", folders());
    EXPECT_EQ("[/c/deep/z.mp3] 2 in [/c/deep] deleted\n", files());
    EXPECT_TRUE(endsWatchOf("/c")); // the folder is still there and still watched
    EXPECT_TRUE(endsWatchOf("/c/deep"));
}

TEST_F(VolumeManagerWalkTest, crawlPathIsMatchedByteByByte)
{
    volume.makeFolder("Music");
    walk("/Music");
    configure({ "/music", "/Mus", "/Music/Rock" });
    walkOnThread();
    EXPECT_EQ(1, timesLogged(LOG_INFO, "not found /Music so removing\n"));
    EXPECT_EQ("[/Music] root deleted\n", folders());
}

TEST_F(VolumeManagerWalkTest, rowOfTheVolumeItselfIsRemovedOnceThereAreCrawlPaths)
{
    volume.writeFile("a/b.mp3");
    walkOnThread();
    ASSERT_EQ("[] root\n[/a] in []\n", folders());
    configure({ "/a" });
    walkOnThread();
    EXPECT_EQ((std::vector<LogLine> { info("Checking if the folder  exists in the path list"),
                  info("not found  so removing\n"), info("Row for folder /a exists in the DB so updating it\n"),
                  info("Row for file /a/b.mp3 exists in the DB so updating it\n"), finished("/a") }),
        story());
    EXPECT_EQ("[] root deleted\n[/a] root\n", folders());
    EXPECT_EQ("[/a/b.mp3] 2 in [/a]\n", files());
}

TEST_F(VolumeManagerWalkTest, crawlPathThatIsMissingIsPassedOver)
{
    configure({ "/gone", "/a" });
    volume.makeFolder("a");
    walkOnThread();
    EXPECT_EQ((std::vector<LogLine> { finished("/gone"), finished("/a") }), story());
    EXPECT_EQ("[/a] root\n", folders());
}

TEST_F(VolumeManagerWalkTest, removalOfATopLevelFolderThatFailsHalfWayIsUndone)
{
    volume.writeFile("a/x/1.mp3");
    walk("/a");
    configure({ "/b" });
    const BrokenStatement broken(sql::markAFolder); // fails after the subfolder's files
    walkOnThread();
    EXPECT_EQ("[/a] root\n[/a/x] in [/a]\n", folders());
    EXPECT_EQ("0\n", query("select sum(is_deleted) from Files"));
    EXPECT_EQ(1, timesLogged(LOG_ERR, gotAnException().text));
}

TEST_F(VolumeManagerWalkTest, removalOfTopLevelFoldersTakesTheLockAndATransactionForEach)
{
    catalogueTopLevelFolders({ "a", "b" });
    configure({ "/c" });
    LockTrace trace(*manager);
    walkOnThread();
    EXPECT_EQ("()(s)(BsC)(BsC)", trace.text().substr(0, 15)) << "after a look at rows that nothing leads to";
}

TEST_F(VolumeManagerWalkTest, startFolderIsARootOnlyWhenAskedFor)
{
    volume.makeFolder("Music/Rock/Live");
    volume.makeFolder("Films/Old");
    walk("/Music", true);
    walk("/Films", false);
    EXPECT_EQ("[/Films] root\n[/Films/Old] in [/Films]\n"
              "[/Music] root\n[/Music/Rock] in [/Music]\n[/Music/Rock/Live] in [/Music/Rock]\n",
        folders()); // the parent of /Films would be the row of the volume itself, which is not there

    walk("");
    volume.makeFolder("Pictures");
    walk("/Pictures", false);
    EXPECT_NE(std::string::npos, folders().find("[/Pictures] in []\n"));
}

TEST_F(VolumeManagerWalkTest, existingRowOfTheStartFolderKeepsItsParent)
{
    volume.makeFolder("Music/Rock");
    walk("/Music");
    setModifiedTime(volume.path("Music/Rock"), 77);
    walk("/Music/Rock", true);
    EXPECT_EQ("[/Music] root\n[/Music/Rock] in [/Music]\n", folders());
}

TEST_F(VolumeManagerWalkTest, everyFolderIsWatchedAfterIt)
{
    volume.makeFolder("Music/Rock/Live");
    volume.makeFolder("Music/Jazz");
    walk("/Music");
    EXPECT_EQ(4, watches());
    for (const char* below : { "/Music", "/Music/Rock", "/Music/Rock/Live", "/Music/Jazz" })
        EXPECT_TRUE(endsWatchOf(below)) << below;
}

TEST_F(VolumeManagerWalkTest, goesBreadthFirstInTheOrderOfTheDisk)
{
    for (const char* below : { "Music/b/1", "Music/a/2", "Music/c", "Music/b/0" })
        volume.makeFolder(below);
    std::vector<std::string> expected { root + "/Music" };
    std::vector<std::string> visited;
    {
        const OnReaddir look([&](const std::string& folder, dirent* entry) {
            if (entry != nullptr && entry->d_name[0] != '.')
                expected.push_back(folder + "/" + entry->d_name); // children join the end of the queue as they are read
            return entry;
        });
        walk("/Music");
    }
    for (const LogLine& line : loggedLines()) {
        if (line.text.rfind("For folder ", 0) == 0)
            visited.push_back(line.text.substr(11));
    }
    EXPECT_EQ(expected, visited);
    EXPECT_EQ(7U, visited.size());
}

TEST_F(VolumeManagerWalkTest, deepTreeFitsOnTheStackOfTheThread)
{
    std::string deep = "Music";
    for (int level = 0; level < 200; ++level)
        deep += "/level-of-the-tree";
    volume.writeFile(deep + "/a.mp3");
    configure({ "/Music" });
    walkOnThread();
    EXPECT_EQ("[/" + deep + "/a.mp3] 2 in [/" + deep + "]\n", files());
    volume.remove("Music/level-of-the-tree");
    walkOnThread();
    EXPECT_EQ("[/" + deep + "/a.mp3] 2 in [/" + deep + "] deleted\n", files());
    EXPECT_EQ("[/Music] root\n", query("select '['||path||'] root' from Folders where is_deleted=0"));
}

TEST_F(VolumeManagerWalkTest, foldersOfAnyDepthBeyondTheLongestPathArePassedOver)
{
    const std::string element(250, 'x');
    std::string deep = "Music";
    volume.makeFolder(deep);
    int descriptor = open(volume.path(deep).c_str(), O_RDONLY | O_DIRECTORY);
    int levels = 0;
    for (; levels < 20; ++levels) {
        ASSERT_EQ(0, mkdirat(descriptor, element.c_str(), 0755));
        const int below = openat(descriptor, element.c_str(), O_RDONLY | O_DIRECTORY);
        close(descriptor);
        descriptor = below;
    }
    close(descriptor);
    walk("/Music");
    const int reachable = static_cast<int>((4095 - volume.path("Music").length()) / 251);
    EXPECT_EQ(std::to_string(reachable + 1) + "\n", query("select count(*) from Folders"));
    EXPECT_EQ(reachable + 1, watches());
    EXPECT_EQ(0, timesLoggedFrom("Error"));
}

} // namespace
