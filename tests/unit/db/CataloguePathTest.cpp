#include "db/CatalogueTest.h"

#include <sys/stat.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

class CataloguePath : public CatalogueTest {
protected:
    VolumeDBManager manager;

    static unsigned modeOf(const std::string& path)
    {
        struct stat status = {};
        EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
        return status.st_mode & 07777U;
    }
};

} // namespace

TEST_F(CataloguePath, createPathMakesEveryDirectoryAboveTheLastElement)
{
    EXPECT_FALSE(manager.createPath(volume.path("a/b/c/quarrow.db").c_str()));
    EXPECT_TRUE(fs::is_directory(volume.path("a/b/c")));
    EXPECT_FALSE(volume.exists("a/b/c/quarrow.db"));
}

TEST_F(CataloguePath, createPathMakesThemWithMode0755)
{
    umask(0);
    manager.createPath(volume.path("a/b/quarrow.db").c_str());
    EXPECT_EQ(0755U, modeOf(volume.path("a")));
    EXPECT_EQ(0755U, modeOf(volume.path("a/b")));
}

TEST_F(CataloguePath, createPathIsTrueForADirectoryThatIsThereAndMakesNothing)
{
    volume.makeFolder("a");
    EXPECT_TRUE(manager.createPath(volume.path("a").c_str()));
    EXPECT_TRUE(fs::is_empty(volume.path("a")));
}

TEST_F(CataloguePath, createPathMakesTheLastElementWhenASlashFollows)
{
    EXPECT_FALSE(manager.createPath(volume.path("a/b/").c_str()));
    EXPECT_TRUE(fs::is_directory(volume.path("a/b")));
}

TEST_F(CataloguePath, createPathTakesRelativePathsFromTheCurrentDirectory)
{
    const fs::path before = fs::current_path();
    fs::current_path(volume.path());
    EXPECT_FALSE(manager.createPath("a/b/quarrow.db"));
    fs::current_path(before);
    EXPECT_TRUE(fs::is_directory(volume.path("a/b")));
}

TEST_F(CataloguePath, createPathOfANameInTheTopDirectoryMakesNothing)
{
    EXPECT_FALSE(manager.createPath("/quarrow-test-no-such-entry"));
    EXPECT_FALSE(fs::exists("/quarrow-test-no-such-entry"));
}

TEST_F(CataloguePath, createPathLeavesAFileInTheWayAlone)
{
    volume.writeFile("a", "content");
    EXPECT_FALSE(manager.createPath(volume.path("a/b/quarrow.db").c_str()));
    EXPECT_EQ("content", volume.readFile("a"));
}

TEST_F(CataloguePath, createPathOvercomesPathsOfMoreThan1024Bytes)
{
    std::string deep = "a";
    while (deep.size() < 1500)
        deep += "/" + std::string(200, 'd');
    EXPECT_FALSE(manager.createPath(volume.path(deep + "/quarrow.db").c_str()));
    EXPECT_TRUE(fs::is_directory(volume.path(deep)));
}

TEST_F(CataloguePath, theLastElementIsWhatFollowsTheLastSlash)
{
    EXPECT_EQ("b.mp3", manager.getLastElementOfPathFromFullPath("/v/a/b.mp3"));
    EXPECT_EQ("", manager.getLastElementOfPathFromFullPath("/v/a/"));
    EXPECT_EQ("whole", manager.getLastElementOfPathFromFullPath("whole"));
    EXPECT_EQ("", manager.getLastElementOfPathFromFullPath(""));
}

TEST_F(CataloguePath, theElementCountIsOneLessThanThereAre)
{
    EXPECT_EQ(2, manager.getPathElementCount("/v/a/b"));
    EXPECT_EQ(1, manager.getPathElementCount("/v//a/"));
    EXPECT_EQ(0, manager.getPathElementCount("v"));
    EXPECT_EQ(-1, manager.getPathElementCount("/"));
    EXPECT_EQ(-1, manager.getPathElementCount(""));
}
