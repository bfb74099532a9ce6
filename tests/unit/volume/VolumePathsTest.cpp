#include "VolumeTest.h"

namespace {

class VolumePathsTest : public VolumeTest {
protected:
    VolumePathsTest() { initializeQuietly(); }
};

TEST_F(VolumePathsTest, nothingIsExcludedWithoutConfiguration)
{
    EXPECT_FALSE(manager->isExcludePath(""));
    EXPECT_FALSE(manager->isExcludePath(root));
}

TEST_F(VolumePathsTest, needsALongerPathThatContainsTheString)
{
    configure({}, { "/mnt/vol/tmp" });
    EXPECT_FALSE(manager->isExcludePath("/mnt/vol/tm"));
    EXPECT_FALSE(manager->isExcludePath("/mnt/vol/tmp")); // named in full: stays
    EXPECT_TRUE(manager->isExcludePath("/mnt/vol/tmp/a"));
    EXPECT_TRUE(manager->isExcludePath("/mnt/vol/tmpfiles"));
    EXPECT_TRUE(manager->isExcludePath("/other/mnt/vol/tmp"));
    EXPECT_FALSE(manager->isExcludePath("/mnt/vol/TMP/a"));
}

TEST_F(VolumePathsTest, stringInTheMiddleExcludesTheFolderItself)
{
    configure({}, { "/tmp" });
    EXPECT_FALSE(manager->isExcludePath("/tmp"));
    EXPECT_TRUE(manager->isExcludePath("/mnt/vol/tmp"));
    EXPECT_TRUE(manager->isExcludePath("/tmpfiles"));
}

TEST_F(VolumePathsTest, anyOfTheStringsWillDo)
{
    configure({}, { "/one", "/two/", "three" });
    EXPECT_TRUE(manager->isExcludePath("/a/one"));
    EXPECT_TRUE(manager->isExcludePath("/a/two")); // a slash at the end does not count
    EXPECT_TRUE(manager->isExcludePath("/a/three"));
    EXPECT_FALSE(manager->isExcludePath("/a/four"));
}

TEST_F(VolumePathsTest, stringsOfAnotherVolumeDoNotCount)
{
    configure({}, { "/one" });
    std::string other = "another volume";
    std::string path = volume.path("other");
    manager->destroy();
    ASSERT_TRUE(manager->initialize(other, path));
    EXPECT_FALSE(manager->isExcludePath("/a/one"));
}

TEST_F(VolumePathsTest, folderNamedInFullIsWalkedAndAllBelowItSkipped)
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

TEST_F(VolumePathsTest, shortStringSkipsTheFolderAsWell)
{
    configure({}, { "/skip" });
    volume.writeFile("Music/skip/1.mp3");
    walk("/Music");
    EXPECT_EQ("[/Music] root\n", folders());
    EXPECT_EQ(1, watches());
}

TEST_F(VolumePathsTest, excludedStartFolderIsNotWalked)
{
    configure({}, { "Musi" });
    volume.makeFolder("Music");
    walk("/Music");
    EXPECT_EQ("", folders());
    EXPECT_EQ(0, watches());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 0/0\n"));
}

TEST_F(VolumePathsTest, rowsOfAFolderThatIsExcludedLaterStay)
{
    volume.writeFile("Music/skip/1.mp3");
    walk("/Music");
    configure({}, { "/skip" });
    volume.remove("Music/skip/1.mp3");
    walk("/Music");
    EXPECT_EQ("[/Music] root\n[/Music/skip] in [/Music]\n", folders());
    EXPECT_EQ("[/Music/skip/1.mp3] 2 in [/Music/skip]\n", files());
}

} // namespace
