#include "CheckTest.h"

#include <filesystem>

namespace {

using CheckPathsTest = CheckTest;

// Crawl paths

TEST_F(CheckPathsTest, aCrawlPathThatLeadsNowhere)
{
    EXPECT_EQ(
        "5: warning: The crawl path 'Music' of the volume 'a' has no slash in front, so that the daemon walks"
        " 'DIR/vMusic'. Write '/Music'.\n"
        "5: warning: The crawl path 'Music' of the volume 'a' leads to no folder: there is no 'DIR/vMusic'. Make the"
        " folder, or correct the path.\n",
        check(withVolumes(volume("a", "DIR/v", crawl("Music")))));
    for (const char* path : { "/music", "/Music/a.mp3" })
        EXPECT_EQ("5: warning: The crawl path '" + std::string(path)
                + "' of the volume 'a' leads to no folder: there is no 'DIR/v" + path
                + "'. Make the folder, or correct the"
                  " path.\n",
            check(withVolumes(volume("a", "DIR/v", crawl(path)))));
    const std::string tooLong = "/" + std::string(300, 'x');
    EXPECT_EQ("5: warning: The crawl path '" + tooLong
            + "' of the volume 'a' cannot be looked at: File name too long. Check again as the user that the daemon runs"
              " as.\n",
        check(withVolumes(volume("a", "DIR/v", crawl(tooLong)))));
    std::filesystem::create_directory_symlink("Music", folder.path("v/link"));
    EXPECT_EQ("", check(withVolumes(volume("a", "DIR/v", crawl("/link/"))))); // the daemon follows it there
}

TEST_F(CheckPathsTest, crawlPathsOfAMissingRootAreNotLookedFor)
{
    EXPECT_EQ(
        "5: warning: The root 'DIR/gone' of the volume 'a' is missing: the daemon would make it and catalogue it empty."
        " Mount the volume before the daemon starts, or correct the path.\n",
        check(withVolumes(volume("a", "DIR/gone", crawl("/Music")))));
}

TEST_F(CheckPathsTest, aPathLongerThanThatOfAnyFolderIsNotTakenApart)
{
    std::string path;
    for (int i = 0; i < 3000000; ++i)
        path += "/a";
    EXPECT_EQ("5: warning: The crawl path '" + path
            + "' of the volume 'a' cannot be looked at: File name too long. Check again as the user that the daemon runs"
              " as.\n",
        check(withVolumes(volume("a", "DIR/v", crawl(path))))); // that would take most of an hour
}

TEST_F(CheckPathsTest, anOddCrawlPath)
{
    for (const char* path : { "//Music", "/./Music", "/Music/../Music", "/Music/." })
        EXPECT_EQ("5: warning: The crawl path '" + std::string(path)
                + "' of the volume 'a' has a doubled slash, or an element '.' or '..', which every path in the catalogue then"
                  " has. Write it without them.\n",
            check(withVolumes(volume("a", "DIR/v", crawl(path)))));
}

TEST_F(CheckPathsTest, aCrawlPathThatIsWalkedTwice)
{
    EXPECT_EQ(
        "5: warning: The crawl path '/Music' of the volume 'a' is also in line 5, and is walked twice. Remove one of"
        " them.\n",
        check(withVolumes(volume("a", "DIR/v", "<CrawlPaths><Path>/Music</Path><Path>/Music/</Path></CrawlPaths>"))));
    folder.makeFolder("v/Music/Rock/Hard");
    folder.makeFolder("v/Music2");
    EXPECT_EQ(
        "5: warning: The crawl path '/Music/Rock/Hard' of the volume 'a' lies in the crawl path '/Music' in line 6, and"
        " is walked twice. Remove it.\n",
        check(withVolumes(volume("a", "DIR/v",
            "<CrawlPaths><Path>/Music/Rock/Hard</Path>\n<Path>/Music</Path><Path>/Music2</Path></CrawlPaths>"))));
    EXPECT_EQ(
        "5: warning: The crawl path '/Music' of the volume 'a' lies in the crawl path '/' in line 5, and is walked"
        " twice. Remove it.\n",
        check(withVolumes(volume("a", "DIR/v",
            "<CrawlPaths><Path>/Music</Path><Path>/</Path></CrawlPaths>" + std::string(ownFolderExcluded)))));
}

// Exclusions

TEST_F(CheckPathsTest, anExclusionThatLeavesOutTheVolumeItself)
{
    const auto hits = [](const std::string& text) {
        return "5: warning: The exclusion '" + text
            + "' of the volume 'a' occurs in the path of the volume itself, 'DIR/v': it leaves out everything. Write a text"
              " that occurs only below the volume's root.\n";
    };
    for (const std::string more : { "", "<CrawlPaths><Path>/Music</Path></CrawlPaths>" }) {
        EXPECT_EQ(hits("DIR"), check(withVolumes(volume("a", "DIR/v", exclude("DIR") + more))));
        EXPECT_EQ(hits("/v"), check(withVolumes(volume("a", "DIR/v", exclude("/v/") + more))));
    }
    for (const char* text : { "DIR/v", "/v//" })
        EXPECT_EQ("5: warning: The exclusion '" + replaced(text, "//", "/")
                + "' of the volume 'a' occurs in every path below 'DIR/v': it leaves out all folders of the volume. Write a"
                  " text that occurs only below the volume's root.\n",
            check(withVolumes(volume("a", "DIR/v", exclude(text)))));
    EXPECT_EQ("5: warning: The exclusion '' of the volume 'a' is in every path: it leaves out everything. Remove it.\n",
        check(withVolumes(volume("a", "DIR/v", exclude("/")))));
}

TEST_F(CheckPathsTest, anExclusionThatNamesAFolderInFull)
{
    EXPECT_EQ(
        "5: warning: The exclusion 'DIR/v/cache' of the volume 'a' names a folder in full: what is below it is left out,"
        " but that folder and the files in it are catalogued. To leave it out whole, write '/cache', wherever that"
        " occurs.\n",
        check(withVolumes(volume("a", "DIR/v", exclude("DIR/v/cache")))));
    EXPECT_EQ("", check(withVolumes(volume("a", "DIR/v", exclude("/cache")))));
}

TEST_F(CheckPathsTest, anExclusionThatLeavesOutACrawlPath)
{
    EXPECT_EQ(
        "5: warning: The exclusion '/Mus' of the volume 'a' leaves out the crawl path '/Music' in line 5. Remove one of"
        " them.\n",
        check(withVolumes(volume("a", "DIR/v", crawl("/Music") + exclude("/Mus")))));
    EXPECT_EQ("", check(withVolumes(volume("a", "DIR/v", crawl("/Music") + exclude("/Music/x")))));
}

TEST_F(CheckPathsTest, aVolumeThatCataloguesItsOwnCatalogue)
{
    const std::string warning
        = "5: warning: The volume 'a' is catalogued whole, without the exclusion '/.quarrow'. The daemon"
          " catalogues and watches its own catalogue, and programs that open it delay the changes of"
          " all volumes. Write <ExcludePaths><Path>/.quarrow</Path></ExcludePaths> into it.\n";
    EXPECT_EQ(warning, check(withVolumes(volume("a", "DIR/v", ""))));
    EXPECT_EQ(warning, check(withVolumes(volume("a", "DIR/v", crawl("/")))));
    EXPECT_EQ(
        warning, check(withVolumes(volume("a", "DIR/v", "<ExcludePaths><Path>/.quarrow/x</Path></ExcludePaths>"))));
    EXPECT_EQ("", check(withVolumes(volume("a", "DIR/v", "<ExcludePaths><Path>/.</Path></ExcludePaths>"))));
    EXPECT_EQ("", check(withVolumes(volume("a", "DIR/v", crawl("/Music")))));
}

} // namespace
