#include "VolumeTest.h"

#include <unistd.h>

namespace {

class Exclude : public VolumeTest {
protected:
    Exclude() { initializeQuietly(); }
};

TEST_F(Exclude, nothingIsExcludedWithoutConfiguration)
{
    EXPECT_FALSE(manager->isExcludePath(""));
    EXPECT_FALSE(manager->isExcludePath(root));
}

TEST_F(Exclude, needsALongerPathThatContainsTheString)
{
    configure({}, { "/mnt/vol/tmp" });
    EXPECT_FALSE(manager->isExcludePath("/mnt/vol/tm"));
    EXPECT_FALSE(manager->isExcludePath("/mnt/vol/tmp")); // named in full: stays
    EXPECT_TRUE(manager->isExcludePath("/mnt/vol/tmp/a"));
    EXPECT_TRUE(manager->isExcludePath("/mnt/vol/tmpfiles"));
    EXPECT_TRUE(manager->isExcludePath("/other/mnt/vol/tmp"));
    EXPECT_FALSE(manager->isExcludePath("/mnt/vol/TMP/a"));
}

TEST_F(Exclude, stringInTheMiddleExcludesTheFolderItself)
{
    configure({}, { "/tmp" });
    EXPECT_FALSE(manager->isExcludePath("/tmp"));
    EXPECT_TRUE(manager->isExcludePath("/mnt/vol/tmp"));
    EXPECT_TRUE(manager->isExcludePath("/tmpfiles"));
}

TEST_F(Exclude, anyOfTheStringsWillDo)
{
    configure({}, { "/one", "/two/", "three" });
    EXPECT_TRUE(manager->isExcludePath("/a/one"));
    EXPECT_TRUE(manager->isExcludePath("/a/two")); // a slash at the end does not count
    EXPECT_TRUE(manager->isExcludePath("/a/three"));
    EXPECT_FALSE(manager->isExcludePath("/a/four"));
}

TEST_F(Exclude, stringsOfAnotherVolumeDoNotCount)
{
    configure({}, { "/one" });
    std::string other = "another volume";
    std::string path = volume.path("other");
    manager->destroy();
    ASSERT_TRUE(manager->initialize(other, path));
    EXPECT_FALSE(manager->isExcludePath("/a/one"));
}

TEST_F(Exclude, folderNamedInFullIsWalkedAndAllBelowItSkipped)
{
    configure({}, { root + "/Music/tmp" });
    volume.writeFile("Music/tmp/1.mp3");
    volume.writeFile("Music/tmp/a/2.mp3");
    volume.writeFile("Music/tmpfiles/3.mp3");
    volume.writeFile("Music/other/4.mp3");
    walk("/Music");
    EXPECT_EQ("[/Music] root\n[/Music/other] in [/Music]\n[/Music/tmp] in [/Music]\n", folders());
    EXPECT_EQ("[/Music/other/4.mp3] 2 in [/Music/other]\n[/Music/tmp/1.mp3] 2 in [/Music/tmp]\n", files());
    EXPECT_EQ(3, watches());
    EXPECT_TRUE(endsWatchOf("/Music/tmp"));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 3/2\n")); // skipped ones are not counted
    EXPECT_EQ(3, timesLoggedFrom("For folder "));
}

TEST_F(Exclude, shortStringSkipsTheFolderAsWell)
{
    configure({}, { "/skip" });
    volume.writeFile("Music/skip/1.mp3");
    walk("/Music");
    EXPECT_EQ("[/Music] root\n", folders());
    EXPECT_EQ(1, watches());
}

TEST_F(Exclude, excludedStartFolderIsNotWalked)
{
    configure({}, { "Musi" });
    volume.makeFolder("Music");
    walk("/Music");
    EXPECT_EQ("", folders());
    EXPECT_EQ(0, watches());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 0/0\n"));
}

TEST_F(Exclude, rowsOfAFolderThatIsExcludedLaterStay)
{
    volume.writeFile("Music/skip/1.mp3");
    walk("/Music");
    configure({}, { "/skip" });
    volume.remove("Music/skip/1.mp3");
    walk("/Music");
    EXPECT_EQ("[/Music] root\n[/Music/skip] in [/Music]\n", folders());
    EXPECT_EQ("[/Music/skip/1.mp3] 2 in [/Music/skip]\n", files());
}

class ChangedFolder : public VolumeTest {
protected:
    ChangedFolder()
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

TEST_F(ChangedFolder, crawlPathIsWalkedAsARoot)
{
    handle("/Music");
    EXPECT_EQ(info(goingToWalk("/Music", 1)), loggedLines().front());
    EXPECT_EQ("[/Music] root\n[/Music/Rock] in [/Music]\n", folders());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Finished walk. Walk started at " + root + "/Music\n"));
}

TEST_F(ChangedFolder, anyCrawlPathWillDo)
{
    handle("/Films");
    EXPECT_EQ(info(goingToWalk("/Films", 1)), loggedLines().front());
}

TEST_F(ChangedFolder, deeperFolderIsWalkedAsAnOrdinaryOne)
{
    handle("/Music");
    volume.writeFile("Music/Rock/Live/1.mp3");
    handle("/Music/Rock");
    EXPECT_EQ(info(goingToWalk("/Music/Rock", 0)), loggedLines().front());
    EXPECT_EQ("[/Music] root\n[/Music/Rock] in [/Music]\n[/Music/Rock/Live] in [/Music/Rock]\n", folders());
    EXPECT_EQ("[/Music/Rock/Live/1.mp3] 2 in [/Music/Rock/Live]\n", files());
    EXPECT_TRUE(endsWatchOf("/Music/Rock/Live"));
}

TEST_F(ChangedFolder, newFolderBesideTheCrawlPathsIsNoRoot)
{
    volume.makeFolder("Books");
    volume.makeFolder("Books/Novels");
    walk("");
    handle("/Books/Novels");
    EXPECT_NE(std::string::npos, folders().find("[/Books/Novels] in [/Books]\n"));
}

TEST_F(ChangedFolder, withoutCrawlPathsNothingIsARoot)
{
    volume.makeFolder("elsewhere");
    std::string path = volume.path("elsewhere");
    manager->destroy();
    std::string other = "no crawl paths";
    ASSERT_TRUE(manager->initialize(other, path));
    handle("/elsewhere");
    EXPECT_EQ(1, timesLogged(LOG_INFO, goingToWalk("/elsewhere", 0)));
}

TEST_F(ChangedFolder, folderThatIsGoneChangesNothing)
{
    handle("/Music");
    volume.remove("Music/Rock");
    handle("/Music/Rock");
    EXPECT_EQ(info(goingToWalk("/Music/Rock", 0)), loggedLines().front());
    EXPECT_EQ("[/Music] root\n[/Music/Rock] in [/Music]\n", folders()); // its parent's walk will tell
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 1/0\n"));
}

TEST_F(ChangedFolder, linkInItsPlaceIsNotFollowed)
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

TEST_F(ChangedFolder, linkInThePlaceOfAFolderAboveItIsNotFollowed)
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

TEST_F(ChangedFolder, volumeThatIsALinkIsWalked)
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

TEST_F(ChangedFolder, folderBelowACrawlPathThatIsALinkIsWalked)
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

TEST_F(ChangedFolder, folderBelowACrawlPathBehindALinkIsWalked)
{
    volume.makeFolder("real/deep/Rock");
    ASSERT_EQ(0, symlink("real", volume.path("link").c_str()));
    configure({ "/link/deep" });
    handle("/link/deep");
    volume.writeFile("real/deep/Rock/a.mp3");
    handle("/link/deep/Rock");
    EXPECT_EQ("[/link/deep/Rock/a.mp3] 2 in [/link/deep/Rock]\n", files());
}

TEST_F(ChangedFolder, excludedFolderIsNotWalked)
{
    configure({}, { "/Rock" });
    handle("/Music/Rock");
    EXPECT_EQ("", folders());
}

TEST_F(ChangedFolder, holdsNoLockWhileItWalks)
{
    handle("/Music"); // would wait for ever for a lock of its own
    EXPECT_EQ(2, watches());
}

} // namespace
