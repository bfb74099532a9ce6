#include "db/CatalogueTest.h"

namespace {

class CataloguePathsTest : public CatalogueTest {
protected:
    VolumeDBManager manager;
};

} // namespace

TEST_F(CataloguePathsTest, theLastElementIsWhatFollowsTheLastSlash)
{
    EXPECT_EQ("b.mp3", manager.getLastElementOfPathFromFullPath("/v/a/b.mp3"));
    EXPECT_EQ("", manager.getLastElementOfPathFromFullPath("/v/a/"));
    EXPECT_EQ("whole", manager.getLastElementOfPathFromFullPath("whole"));
    EXPECT_EQ("", manager.getLastElementOfPathFromFullPath(""));
}

TEST_F(CataloguePathsTest, theElementCountIsOneLessThanThereAre)
{
    EXPECT_EQ(2, manager.getPathElementCount("/v/a/b"));
    EXPECT_EQ(1, manager.getPathElementCount("/v//a/"));
    EXPECT_EQ(0, manager.getPathElementCount("v"));
    EXPECT_EQ(-1, manager.getPathElementCount("/"));
    EXPECT_EQ(-1, manager.getPathElementCount(""));
}
