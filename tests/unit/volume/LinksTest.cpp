#include "volume/Links.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace {

/// real/deep/a, with "link" to real and "real/other" to deep.
class LinksTest : public ::testing::Test {
protected:
    LinksTest()
    {
        folder.writeFile("real/deep/a");
        folder.makeFolder("real/deep/b");
        EXPECT_EQ(0, symlink("real", folder.path("link").c_str()));
        EXPECT_EQ(0, symlink("deep", folder.path("real/other").c_str()));
        EXPECT_EQ(0, symlink("a", folder.path("real/deep/c").c_str()));
    }

    bool isBehind(const std::string& path, const std::string& configuredPath) const
    {
        return isBehindLink(folder.path(path), folder.path(configuredPath));
    }
    /// "file", "folder" or "".
    std::string found(const std::string& path) const
    {
        struct stat64 status = {};
        std::string kind = findFile(folder.path(path), folder.path(), status) ? "file" : "";
        kind += findFolder(folder.path(path), folder.path(), status) ? "folder" : "";
        return kind;
    }

    TemporaryFolder folder;
};

TEST_F(LinksTest, countBetweenTheTwoPathsOnly)
{
    EXPECT_TRUE(isBehind("real/other/a", "real"));
    EXPECT_FALSE(isBehind("real/deep/a", "real"));
    EXPECT_FALSE(isBehind("link/deep/a", "link")) << "the configured path may be one";
    EXPECT_FALSE(isBehind("real/other", "real")) << "so may the last element";
    EXPECT_FALSE(isBehind("real", "real"));
}

TEST_F(LinksTest, areNotSeenBehindWhatIsGone) { EXPECT_FALSE(isBehind("real/gone/a", "real")); }

TEST_F(LinksTest, leadToNoFileAndNoFolder)
{
    EXPECT_EQ("file", found("real/deep/a"));
    EXPECT_EQ("folder", found("real/deep/b"));
    EXPECT_EQ("", found("real/deep/c"));
    EXPECT_EQ("", found("real/other"));
    EXPECT_EQ("", found("real/other/a"));
    EXPECT_EQ("", found("real/deep/gone"));
}

} // namespace
