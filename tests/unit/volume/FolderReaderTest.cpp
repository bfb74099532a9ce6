#include "volume/FolderReader.h"

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

TEST(DotOrDotDot, isTrueForThoseTwoOnly)
{
    EXPECT_TRUE(IsDotOrDotDot("."));
    EXPECT_TRUE(IsDotOrDotDot(".."));
    for (const char* name : { "", "...", ".a", "..a", "a.", "a", ". ", ".. ", ". ." })
        EXPECT_FALSE(IsDotOrDotDot(name)) << name;
}

TEST(FolderReading, listsEverythingButTheTwoDots)
{
    const TemporaryFolder folder;
    folder.writeFile("a");
    folder.writeFile("...");
    folder.makeFolder("b");
    FolderReader reader(folder.path(), FolderReader::doNotFollow);
    ASSERT_TRUE(reader.isOpen());
    EXPECT_EQ((std::set<std::string> { "...", "a", "b" }), namesIn(reader));
    EXPECT_FALSE(reader.hasFailed());
}

TEST(FolderReading, endsAtAFailure)
{
    const TemporaryFolder folder;
    folder.writeFile("a");
    const OnReaddir fail([](const std::string&, dirent*) { return OnReaddir::failure(); });
    FolderReader reader(folder.path(), FolderReader::doNotFollow);
    ASSERT_TRUE(reader.isOpen());
    EXPECT_EQ(nullptr, reader.next());
    EXPECT_TRUE(reader.hasFailed());
}

TEST(FolderReading, followsALinkWhenAskedTo)
{
    const TemporaryFolder folder;
    folder.writeFile("real/a");
    ASSERT_EQ(0, symlink("real", folder.path("link").c_str()));
    FolderReader followed(folder.path("link"), FolderReader::follow);
    ASSERT_TRUE(followed.isOpen());
    EXPECT_EQ(std::set<std::string> { "a" }, namesIn(followed));
    EXPECT_FALSE(FolderReader(folder.path("link"), FolderReader::doNotFollow).isOpen());
}

TEST(FolderReading, opensFoldersOnly)
{
    const TemporaryFolder folder;
    folder.writeFile("file");
    for (const char* path : { "file", "gone" })
        EXPECT_FALSE(FolderReader(folder.path(path), FolderReader::follow).isOpen()) << path;
}

} // namespace
