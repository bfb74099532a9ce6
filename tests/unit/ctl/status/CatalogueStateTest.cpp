#include "ctl/status/CatalogueState.h"

#include "../SampleCatalogue.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace {

constexpr const char* change
    = "update Folders set category = category where 0; insert into Folders(parent_id, path, name,"
      " created_time, modified_time, is_deleted, last_updated_time)"
      " values(-1, '/d', 'd', 1, 1, 0, 1)";

/// Sets both times of the file to long ago; the inode's own change time stays that of now.
void makeOld(const std::string& path)
{
    const timespec old[] = { { 1000, 0 }, { 1000, 0 } };
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), old, 0));
}

std::string textOf(const SampleCatalogue& sample) { return CatalogueState(sample.path()).text(); }

TEST(CatalogueStateTest, anUnchangedCatalogueKeepsIt)
{
    SampleCatalogue sample;
    sample.run(change);
    const std::string before = textOf(sample);
    EXPECT_EQ(before, textOf(sample));
    EXPECT_EQ(std::string::npos, before.find('\n'));
}

TEST(CatalogueStateTest, everyTransactionChangesIt)
{
    SampleCatalogue sample;
    std::string before = textOf(sample);
    for (int i = 0; i < 20; ++i) { // within one tick of the file's times, mostly
        sample.run(change);
        const std::string now = textOf(sample);
        EXPECT_NE(before, now);
        before = now;
    }
}

TEST(CatalogueStateTest, everyTransactionChangesItAlsoBehindALink)
{
    const SampleCatalogue sample;
    const TemporaryFolder folder;
    const std::string link = folder.path("quarrow.db");
    ASSERT_EQ(0, symlink(sample.path().c_str(), link.c_str()));
    const std::string before = CatalogueState(link).text();
    sample.run(change);
    EXPECT_NE(before, CatalogueState(link).text());
}

TEST(CatalogueStateTest, theEndOfTheWriterChangesIt)
{
    SampleCatalogue sample;
    sample.run(change);
    const std::string before = textOf(sample);
    sample.stopWriter();
    EXPECT_NE(before, textOf(sample));
}

TEST(CatalogueStateTest, anotherFileInItsPlaceChangesIt)
{
    TemporaryFolder folder;
    const std::string path = folder.writeFile("a", "content");
    makeOld(path);
    const std::string before = CatalogueState(path).text();
    const std::string other = folder.writeFile("b", "content");
    makeOld(other);
    ASSERT_EQ(0, std::rename(other.c_str(), path.c_str()));
    EXPECT_NE(before, CatalogueState(path).text());
}

TEST(CatalogueStateTest, aChangeThatHidesInTheFilesTimeShowsInTheInodes)
{
    TemporaryFolder folder;
    const std::string path = folder.writeFile("a", "content");
    makeOld(path);
    const std::string before = CatalogueState(path).text();
    std::string after = before;
    for (int tries = 0; after == before && tries < 1000000; ++tries) { // until the clock of the file system ticks
        folder.writeFile("a", "CONTENT");
        makeOld(path);
        after = CatalogueState(path).text();
    }
    EXPECT_NE(before, after);
}

TEST(CatalogueStateTest, aFileOfThePresentIsNotSettled)
{
    TemporaryFolder folder;
    const std::string path = folder.writeFile("a", "content");
    EXPECT_FALSE(CatalogueState(path).isSettled());
    const std::string system = "/proc/self/exe"; // changed when it was built, which was not just now
    EXPECT_TRUE(CatalogueState(system).isSettled());
}

} // namespace
