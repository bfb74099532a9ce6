#include "ctl/units/LinkedPath.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

TEST(LinkedPathTest, linksLeadOnAlsoToWhatIsNotThere)
{
    const TemporaryFolder folder;
    folder.makeFolder("a/b");
    ASSERT_EQ(0, symlink("../c", folder.path("a/link").c_str()));
    ASSERT_EQ(0, symlink((folder.path() + "/d/./e/../f").c_str(), folder.path("c").c_str()));
    EXPECT_EQ(folder.path("d/f/below"), linkedPath(folder.path("a/link/below")));
    EXPECT_EQ(folder.path("d/f"), linkedPath(folder.path("a/b/../link/")));
}

TEST(LinkedPathTest, aPathWithoutLinksLosesWhatSaysNothing)
{
    EXPECT_EQ("/nowhere/b", linkedPath("//nowhere/./a/..//b/"));
    EXPECT_EQ("/", linkedPath("/"));
    EXPECT_EQ("/nowhere", linkedPath("/../nowhere"));
}

TEST(LinkedPathTest, aCircleEnds)
{
    const TemporaryFolder folder;
    ASSERT_EQ(0, symlink("two", folder.path("one").c_str()));
    ASSERT_EQ(0, symlink("one", folder.path("two").c_str()));
    EXPECT_EQ(folder.path("one/x"), linkedPath(folder.path("one/x")));
}

} // namespace
