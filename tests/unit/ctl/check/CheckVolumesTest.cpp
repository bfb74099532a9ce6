#include "CheckTest.h"

#include "config/PrivateMount.h"

#include <filesystem>

namespace {

using CheckVolumesTest = CheckTest;

TEST_F(CheckVolumesTest, aVolumeWithoutRootOrName)
{
    EXPECT_EQ(
        "4: warning: The volume 'b' has no <Root>, so it is no volume. Write the absolute path of its root folder into"
        " a <Root>, or remove the volume.\n",
        check(withVolumes("<Volume><Name>b</Name></Volume>" + volume("a", "DIR/v"))));
    EXPECT_EQ(
        "4: warning: The volume has no <Name>: log lines do not say that they are about it. Give it a <Name> of its"
        " own.\n",
        check(withVolumes("<Volume><Root>DIR/v</Root>" + std::string(ownFolderExcluded) + "</Volume>")));
}

TEST_F(CheckVolumesTest, oneNameForTwo)
{
    EXPECT_EQ(
        "6: warning: The name 'a' is also that of the volume in line 5. Of both only the later <Root> counts, with the"
        " crawl paths and exclusions of both. Give each volume a <Name> of its own.\n",
        check(withVolumes(volume("a", "/nowhere") + volume("a", "DIR/v", ""))));
}

TEST_F(CheckVolumesTest, aRootThatIsNoAbsolutePathOrAnOddOne)
{
    EXPECT_EQ(
        "5: warning: The root 'no-such-folder' of the volume 'a' does not begin with a slash, so it depends on the"
        " folder that the daemon is started in. Write its absolute path.\n"
        "5: warning: The root 'no-such-folder' of the volume 'a' is missing: the daemon would make it and catalogue it"
        " empty. Mount the volume before the daemon starts, or correct the path.\n",
        check(withVolumes(volume("a", "no-such-folder"))));
    for (const char* root : { "DIR/v//", "DIR//v", "DIR/./v", "DIR/v/../v", "DIR/v/.", "DIR/v/.." })
        EXPECT_EQ("5: warning: The root '" + std::string(root)
                + "' of the volume 'a' has a doubled slash, or an element '.' or '..', which every path of the volume then"
                  " has. Write it without them.\n",
            check(withVolumes(volume("a", root))))
            << root;
    folder.writeFile("v/..x/.y./file");
    EXPECT_EQ("", check(withVolumes(volume("a", "DIR/v/..x/.y./"))));
}

TEST_F(CheckVolumesTest, theRootFolderNeedsCrawlPaths)
{
    const std::string warning
        = "5: warning: The root '/' of the volume 'a' works with crawl paths only. Write the folders"
          " that are to be catalogued into <CrawlPaths>.\n";
    EXPECT_EQ(warning, check(withVolumes(volume("a", "/"))));
    EXPECT_EQ(warning, check(withVolumes(volume("a", "/", crawl("/")))));
    EXPECT_EQ("", check(withVolumes(volume("a", "/", crawl("DIR/v")))));
}

TEST_F(CheckVolumesTest, aRootThatIsNotThere)
{
    EXPECT_EQ(
        "5: warning: The root 'DIR/gone' of the volume 'a' is missing: the daemon would make it and catalogue it empty."
        " Mount the volume before the daemon starts, or correct the path.\n",
        check(withVolumes(volume("a", "DIR/gone"))));
    for (const char* root : { "DIR/v/Music/a.mp3", "DIR/v/Music/a.mp3/below" })
        EXPECT_EQ("5: warning: The root '" + std::string(root)
                + "' of the volume 'a' is no folder: the daemon would leave the volume out. Write the path of a folder.\n",
            check(withVolumes(volume("a", root))));
    const std::string tooLong = "/" + std::string(300, 'x');
    EXPECT_EQ("5: warning: The root '" + tooLong
            + "' of the volume 'a' cannot be looked at: File name too long. Check again as the user that the daemon runs"
              " as.\n",
        check(withVolumes(volume("a", tooLong))));
    folder.makeFolder("empty");
    EXPECT_EQ(
        "5: warning: The root 'DIR/empty' of the volume 'a' is an empty folder, and no file system is mounted there. If"
        " one is meant to be, mount it before the daemon starts, which would catalogue the empty folder.\n",
        check(withVolumes(volume("a", "DIR/empty"))));
}

TEST_F(CheckVolumesTest, aRootWhoseCataloguePathIsTooLongForTheDaemon)
{
    const auto rootOf = [this](std::size_t length) {
        std::string root = folder.path();
        while (root.length() + 101 < length)
            root += "/" + std::string(99, 'x');
        return root + "/" + std::string(length - root.length() - 1, 'y');
    };
    const auto tooLong = [](const std::string& root) {
        return "5: warning: The root '" + root
            + "' of the volume 'a' is too long: with '/.quarrow/quarrow.db' it has 505 bytes, links resolved, and may have"
              " 504. The daemon would leave the volume out. Move the folder to a shorter path.\n";
    };
    const auto relative = [this](const std::string& root) { return replaced(root, folder.path(), "DIR"); };
    const std::string longest = rootOf(484);
    const std::string longer = rootOf(485);
    EXPECT_EQ(tooLong(relative(longer)), check(withVolumes(volume("a", longer))));
    for (const std::string& root : { longest, longer })
        folder.writeFile(root.substr(folder.path().length() + 1) + "/file");
    EXPECT_EQ(tooLong(relative(longer)), check(withVolumes(volume("a", longer))));
    EXPECT_EQ("", check(withVolumes(volume("a", longest + "/"))));
    std::filesystem::create_directory_symlink(longer, folder.path("short"));
    EXPECT_EQ(tooLong("DIR/short"), check(withVolumes(volume("a", "DIR/short"))));
}

TEST_F(CheckVolumesTest, aLinkToNothingOnTheWayToTheRoot)
{
    std::filesystem::create_directory_symlink(folder.path("nowhere"), folder.path("link"));
    for (const char* root : { "DIR/link", "DIR/link/below" })
        EXPECT_EQ("5: warning: The root '" + std::string(root)
                + "' of the volume 'a' cannot be reached: 'DIR/link' is a link to nothing. The daemon would leave the"
                  " volume out. Make or mount what the link leads to before the daemon starts, or correct the path.\n",
            check(withVolumes(volume("a", root))));
    folder.makeFolder("nowhere");
    EXPECT_EQ(
        "5: warning: The root 'DIR/link/below' of the volume 'a' is missing: the daemon would make it and catalogue it"
        " empty. Mount the volume before the daemon starts, or correct the path.\n",
        check(withVolumes(volume("a", "DIR/link/below"))));
}

TEST_F(CheckVolumesTest, anEmptyFolderWhereSomethingIsMountedAndOneThatIsReadOnly)
{
    const PrivateMount mount = PrivateMount::inMemory(folder.makeFolder("mounted"), "size=64k");
    if (!mount.isMounted())
        GTEST_SKIP() << "mounting is not permitted here";
    EXPECT_EQ("", check(withVolumes(volume("a", "DIR/mounted"))));
    ASSERT_TRUE(mount.makeReadOnly());
    EXPECT_EQ(
        "5: warning: The root 'DIR/mounted' of the volume 'a' is mounted read-only, and has no catalogue yet: the daemon"
        " would leave the volume out. Mount it with write permission.\n",
        check(withVolumes(volume("a", "DIR/mounted"))));
}

TEST_F(CheckVolumesTest, aReadOnlyVolumeThatHasACatalogue)
{
    const PrivateMount mount = PrivateMount::inMemory(folder.makeFolder("mounted"), "size=64k");
    if (!mount.isMounted())
        GTEST_SKIP() << "mounting is not permitted here";
    folder.writeFile("mounted/.quarrow/quarrow.db");
    ASSERT_TRUE(mount.makeReadOnly());
    EXPECT_EQ(
        "5: warning: The root 'DIR/mounted' of the volume 'a' is mounted read-only: nothing can be written into its"
        " catalogue. Mount it with write permission.\n",
        check(withVolumes(volume("a", "DIR/mounted"))));
}

// Volumes and each other

std::string inside(const std::string& inner, const std::string& outer)
{
    return "6: warning: The volume 'b' at " + inner + " lies inside the volume 'a' at " + outer
        + " in line 5. Only one of them sees changes there as they happen. Catalogue each folder in one volume: by crawl"
          " paths, an exclusion, or by removing one volume.\n";
}

TEST_F(CheckVolumesTest, oneRootForTwo)
{
    const std::string warning
        = "6: warning: The volume 'b' has the same root as the volume 'a' in line 5. Both would write"
          " one catalogue. Remove one of them.\n";
    EXPECT_EQ(warning, check(withVolumes(volume("a", "DIR/v") + volume("b", "DIR/v/"))));
    folder.makeFolder("v/Films");
    EXPECT_EQ(
        warning, check(withVolumes(volume("a", "DIR/v", crawl("/Music")) + volume("b", "DIR/v", crawl("/Films")))));
    std::filesystem::create_directory_symlink("v", folder.path("link"));
    EXPECT_EQ(warning, check(withVolumes(volume("a", "DIR/v") + volume("b", "DIR/link"))));
}

TEST_F(CheckVolumesTest, oneInsideAnother)
{
    EXPECT_EQ(inside("DIR/v/Music", "DIR/v"), check(withVolumes(volume("a", "DIR/v") + volume("b", "DIR/v/Music"))));
    EXPECT_EQ("5: warning: The volume 'b' at DIR/v/Music lies inside the volume 'a' at DIR/v in line 6"
            + inside("", "").substr(inside("", "").find(". Only")),
        check(withVolumes(volume("b", "DIR/v/Music") + volume("a", "DIR/v"))));
    folder.writeFile("v2/file");
    EXPECT_EQ("", check(withVolumes(volume("a", "DIR/v") + volume("b", "DIR/v2"))));
    std::filesystem::create_directory_symlink("v/Music", folder.path("link"));
    EXPECT_EQ(inside("DIR/link", "DIR/v"), check(withVolumes(volume("a", "DIR/v") + volume("b", "DIR/link"))));
}

TEST_F(CheckVolumesTest, oneInsideAnotherThatDoesNotCatalogueItThere)
{
    folder.makeFolder("v/Films/deep");
    folder.writeFile("v/Films/new/film.mp4");
    EXPECT_EQ("", check(withVolumes(volume("a", "DIR/v", crawl("/Music")) + volume("b", "DIR/v/Films"))));
    EXPECT_EQ("", check(withVolumes(volume("a", "DIR/v", exclude("/Films")) + volume("b", "DIR/v/Films"))));
    EXPECT_EQ("", check(withVolumes(volume("a", "DIR/v", exclude("/Films")) + volume("b", "DIR/v/Films/new"))));
    EXPECT_EQ(inside("DIR/v/Films/new", "DIR/v/Films"),
        check(withVolumes(volume("a", "/", crawl("DIR/v/Films")) + volume("b", "DIR/v", crawl("/Films/new")))));
}

TEST_F(CheckVolumesTest, namesWithControlBytesDoNoHarm)
{
    EXPECT_EQ(
        "5: warning: The root '/\xc2\x9b\n' of the volume 'a\tb' is missing: the daemon would make it and catalogue it"
        " empty. Mount the volume before the daemon starts, or correct the path.\n",
        replaced(check(withVolumes(volume("a&#9;b", "/&#x9b;&#10;"))),
            "5: warning: The value of <Root> has blanks or line ends around it, which belong to it: '/\xc2\x9b\n'. Write the"
            " value without them, between the tags on one line.\n",
            ""));
}

} // namespace
