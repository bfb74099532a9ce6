#include "VolumeTest.h"

#include <unistd.h>

namespace {

/// The walk that a changed folder is given.
class FolderChangesWalkTest : public VolumeTest {
protected:
    FolderChangesWalkTest()
    {
        volume.makeFolder("Music/Rock");
        initializeQuietly();
        configure({ "/Music", "/Films" });
    }

    void handle(const std::string& below)
    {
        clearLog();
        std::string path = root + below;
        manager->handleChangeFolder(path);
        EXPECT_EQ(root + below, path);
    }

    void replaceByLink(const std::string& below, const std::string& target) const
    {
        volume.remove(below);
        ASSERT_EQ(0, symlink(volume.path(target).c_str(), volume.path(below).c_str()));
    }

    std::string goingToWalk(const std::string& below, int found) const
    {
        return "Going to walk " + root + below + " in handleChangeFolder and found is " + std::to_string(found) + "\n";
    }
};

TEST_F(FolderChangesWalkTest, crawlPathIsWalkedAsARoot)
{
    handle("/Music");
    EXPECT_EQ(info(goingToWalk("/Music", 1)), loggedLines().front());
    EXPECT_EQ("[/Music] root\n[/Music/Rock] in [/Music]\n", folders());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Finished walk. Walk started at " + root + "/Music\n"));
}

TEST_F(FolderChangesWalkTest, anyCrawlPathWillDo)
{
    handle("/Films");
    EXPECT_EQ(info(goingToWalk("/Films", 1)), loggedLines().front());
}

TEST_F(FolderChangesWalkTest, deeperFolderIsWalkedAsAnOrdinaryOne)
{
    handle("/Music");
    volume.writeFile("Music/Rock/Live/1.mp3");
    handle("/Music/Rock");
    EXPECT_EQ(info(goingToWalk("/Music/Rock", 0)), loggedLines().front());
    EXPECT_EQ("[/Music] root\n[/Music/Rock] in [/Music]\n[/Music/Rock/Live] in [/Music/Rock]\n", folders());
    EXPECT_EQ("[/Music/Rock/Live/1.mp3] 2 in [/Music/Rock/Live]\n", files());
    EXPECT_TRUE(endsWatchOf("/Music/Rock/Live"));
}

TEST_F(FolderChangesWalkTest, newFolderBesideTheCrawlPathsIsNoRoot)
{
    volume.makeFolder("Books");
    volume.makeFolder("Books/Novels");
    walk("");
    handle("/Books/Novels");
    EXPECT_NE(std::string::npos, folders().find("[/Books/Novels] in [/Books]\n"));
}

TEST_F(FolderChangesWalkTest, withoutCrawlPathsNothingIsARoot)
{
    volume.makeFolder("elsewhere");
    std::string path = volume.path("elsewhere");
    manager->destroy();
    std::string other = "no crawl paths";
    ASSERT_TRUE(manager->initialize(other, path));
    handle("/elsewhere");
    EXPECT_EQ(1, timesLogged(LOG_INFO, goingToWalk("/elsewhere", 0)));
}

TEST_F(FolderChangesWalkTest, folderThatIsGoneChangesNothing)
{
    handle("/Music");
    volume.remove("Music/Rock");
    handle("/Music/Rock");
    EXPECT_EQ(info(goingToWalk("/Music/Rock", 0)), loggedLines().front());
    EXPECT_EQ("[/Music] root\n[/Music/Rock] in [/Music]\n", folders()); // its parent's walk will tell
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 1/0\n"));
}

TEST_F(FolderChangesWalkTest, linkInItsPlaceIsNotFollowed)
{
    volume.writeFile("outside/secret.mp3");
    handle("/Music");
    ageRows();
    setModifiedTime(volume.path("outside"), 77);
    replaceByLink("Music/Rock", "outside");
    handle("/Music/Rock");
    EXPECT_EQ("", files());
    EXPECT_EQ("", writtenRows()); // not even the time of what the link leads to
    EXPECT_EQ(2, watches());
}

TEST_F(FolderChangesWalkTest, linkInThePlaceOfAFolderAboveItIsNotFollowed)
{
    volume.writeFile("outside/Live/secret.mp3");
    volume.makeFolder("Music/Rock/Live");
    handle("/Music");
    ageRows();
    replaceByLink("Music/Rock", "outside");
    handle("/Music/Rock/Live");
    EXPECT_EQ("", files());
    EXPECT_EQ("", writtenRows());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 1/0\n"));
}

TEST_F(FolderChangesWalkTest, volumeThatIsALinkIsWalked)
{
    configure({});
    useALinkToTheVolume();
    walk("");
    volume.writeFile("a.mp3");
    handle("");
    EXPECT_EQ("[/a.mp3] 2 in []\n", files());
    volume.writeFile("Music/Rock/b.mp3");
    handle("/Music/Rock");
    EXPECT_EQ("[/Music/Rock/b.mp3] 2 in [/Music/Rock]\n[/a.mp3] 2 in []\n", files());
}

TEST_F(FolderChangesWalkTest, folderBelowACrawlPathThatIsALinkIsWalked)
{
    volume.makeFolder("real/Rock");
    ASSERT_EQ(0, symlink("../real", volume.path("Music/link").c_str()));
    int files = 0;
    for (const std::list<std::string>& crawlPaths :
        { std::list<std::string> { "/Music", "/Music/link" }, std::list<std::string> { "/Music/link", "/Music" } }) {
        configure(crawlPaths);
        handle("/Music/link");
        volume.writeFile("real/Rock/" + std::to_string(++files));
        handle("/Music/link/Rock"); // the nearer crawl path counts, wherever it stands in the list
        EXPECT_EQ(
            std::to_string(files) + "\n", query("select count(*) from Files where path like '/Music/link/Rock/%'"));
    }
}

TEST_F(FolderChangesWalkTest, folderBelowACrawlPathBehindALinkIsWalked)
{
    volume.makeFolder("real/deep/Rock");
    ASSERT_EQ(0, symlink("real", volume.path("link").c_str()));
    configure({ "/link/deep" });
    handle("/link/deep");
    volume.writeFile("real/deep/Rock/a.mp3");
    handle("/link/deep/Rock");
    EXPECT_EQ("[/link/deep/Rock/a.mp3] 2 in [/link/deep/Rock]\n", files());
}

TEST_F(FolderChangesWalkTest, excludedFolderIsNotWalked)
{
    configure({}, { "/Rock" });
    handle("/Music/Rock");
    EXPECT_EQ("", folders());
}

TEST_F(FolderChangesWalkTest, holdsNoLockWhileItWalks)
{
    handle("/Music"); // would wait for ever for a lock of its own
    EXPECT_EQ(2, watches());
}

} // namespace
