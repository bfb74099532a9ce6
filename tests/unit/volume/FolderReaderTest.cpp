#include "volume/FolderReader.h"
#include "volume/Links.h"

#include "SystemHooks.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <set>
#include <string>

namespace {

std::set<std::string> namesIn(FolderReader& reader)
{
    std::set<std::string> names;
    while (const dirent* entry = reader.next())
        names.insert(entry->d_name);
    return names;
}

TEST(FolderReaderTest, dotOrDotDotIsTrueForThoseTwoOnly)
{
    EXPECT_TRUE(IsDotOrDotDot("."));
    EXPECT_TRUE(IsDotOrDotDot(".."));
    for (const char* name : { "", "...", ".a", "..a", "a.", "a", ". ", ".. ", ". ." })
        EXPECT_FALSE(IsDotOrDotDot(name)) << name;
}

TEST(FolderReaderTest, listsEverythingButTheTwoDots)
{
    const TemporaryFolder folder;
    folder.writeFile("a");
    folder.writeFile("...");
    folder.makeFolder("b");
    FolderReader reader(folder.path(), folder.path());
    ASSERT_TRUE(reader.isOpen());
    EXPECT_EQ((std::set<std::string> { "...", "a", "b" }), namesIn(reader));
    EXPECT_FALSE(reader.hasFailed());
}

TEST(FolderReaderTest, endsAtAFailure)
{
    const TemporaryFolder folder;
    folder.writeFile("a");
    const OnReaddir fail([](const std::string&, dirent*) { return OnReaddir::failure(); });
    FolderReader reader(folder.path(), folder.path());
    ASSERT_TRUE(reader.isOpen());
    EXPECT_EQ(nullptr, reader.next());
    EXPECT_TRUE(reader.hasFailed());
}

TEST(FolderReaderTest, followsLinksUpToTheConfiguredPathAndNoneBelow)
{
    const TemporaryFolder folder;
    folder.writeFile("real/deep/a");
    ASSERT_EQ(0, symlink("real", folder.path("link").c_str()));
    ASSERT_EQ(0, symlink("deep", folder.path("real/other").c_str()));
    const auto isOpen = [&folder](const std::string& path, const std::string& configuredPath) {
        return FolderReader(folder.path(path), folder.path(configuredPath)).isOpen();
    };
    EXPECT_TRUE(isOpen("link", "link"));
    EXPECT_TRUE(isOpen("link/deep", "link"));
    EXPECT_TRUE(isOpen("link/deep", "link/deep"));
    EXPECT_TRUE(isOpen("link/other", "link/other"));
    EXPECT_FALSE(isOpen("link/other", "link")) << "in the last element";
    EXPECT_FALSE(FolderReader(folder.path("link/deep"), folder.path()).isOpen()) << "in one above it";
    EXPECT_TRUE(FolderReader(folder.path("real/deep"), folder.path()).isOpen());
    EXPECT_FALSE(FolderReader(folder.path("link"), folder.path("real")).isOpen()) << "beside it";
    EXPECT_TRUE(FolderReader(folder.path("real"), "").isOpen()) << "a volume that is the root folder";
}

TEST(FolderReaderTest, opensFoldersOnly)
{
    const TemporaryFolder folder;
    folder.writeFile("file");
    for (const char* path : { "file", "gone" }) {
        EXPECT_FALSE(FolderReader(folder.path(path), folder.path(path)).isOpen()) << path;
        EXPECT_FALSE(FolderReader(folder.path(path), folder.path()).isOpen()) << path;
    }
    EXPECT_FALSE(FolderReader(folder.path("gone/gone"), folder.path("gone")).isOpen());
}

} // namespace
