#include "db/DBFile.h"

#include <gtest/gtest.h>

#include <climits>
#include <deque>
#include <string>
#include <type_traits>
#include <utility>

static_assert(std::has_virtual_destructor_v<DBFile>);
static_assert(std::is_same_v<long long, decltype(std::declval<const DBFile>().getSize())>);
static_assert(std::is_same_v<void (DBFile::*)(long long), decltype(&DBFile::setSize)>);
static_assert(std::is_same_v<std::string, decltype(std::declval<const DBFile>().getPath())>, "a copy, not a reference");
static_assert(std::is_same_v<std::string, decltype(std::declval<const DBFile>().getName())>);

namespace {

/// Every field: file, folder, name, path, category, size, modified, updated, created, deleted.
std::string dump(const DBFile& file)
{
    return std::to_string(file.getFile_id()) + " " + std::to_string(file.getFolder_id()) + " '" + file.getName() + "' '"
        + file.getPath() + "' " + std::to_string(file.getCategory()) + " " + std::to_string(file.getSize()) + " "
        + std::to_string(file.getModified_time()) + " " + std::to_string(file.getLast_updated_time()) + " "
        + std::to_string(file.getCreated_time()) + (file.getIs_deleted() ? " deleted" : " live");
}

DBFile someFile()
{
    DBFile file;
    file.setFile_id(1);
    file.setFolder_id(2);
    file.setName("x.mp3");
    file.setPath("/v/music/x.mp3");
    file.setCategory(3);
    file.setSize(4);
    file.setModified_time(5);
    file.setLast_updated_time(6);
    file.setCreated_time(7);
    file.setIs_deleted(true);
    return file;
}

TEST(DBFileTest, holdsWhatWasSet) { EXPECT_EQ("1 2 'x.mp3' '/v/music/x.mp3' 3 4 5 6 7 deleted", dump(someFile())); }

TEST(DBFileTest, hasDefinedValuesFromTheStart) { EXPECT_EQ("-1 -1 '' '' -1 0 0 0 0 live", dump(DBFile())); }

TEST(DBFileTest, keepsItsDeletedMarkWhenReset)
{
    DBFile file = someFile();
    file.reset();
    EXPECT_EQ("-1 -1 '' '' -1 0 0 0 0 deleted", dump(file));
    file = someFile();
    file.setIs_deleted(false);
    file.reset();
    EXPECT_EQ("-1 -1 '' '' -1 0 0 0 0 live", dump(file));
}

TEST(DBFileTest, holdsSizesBeyond32Bits)
{
    DBFile file;
    file.setSize(LLONG_MAX);
    EXPECT_EQ(LLONG_MAX, file.getSize());
    file.setSize(5'000'000'000);
    EXPECT_EQ(5'000'000'000, file.getSize());
    file.setSize(-1);
    EXPECT_EQ(-1, file.getSize());
}

TEST(DBFileTest, holdsAnyTimeAndId)
{
    DBFile file;
    file.setModified_time(INT_MIN);
    file.setCreated_time(INT_MAX);
    file.setFile_id(INT_MAX);
    EXPECT_EQ(std::to_string(INT_MAX) + " -1 '' '' -1 0 " + std::to_string(INT_MIN) + " 0 " + std::to_string(INT_MAX)
            + " live",
        dump(file));
}

TEST(DBFileTest, isCopiedInAllItsFields)
{
    DBFile original = someFile();
    const DBFile copy(original);
    DBFile assigned;
    assigned = original;
    original.setName("y");
    original.setPath("/y");
    original.setFile_id(9);
    EXPECT_EQ(dump(someFile()), dump(copy));
    EXPECT_EQ(dump(someFile()), dump(assigned));
}

TEST(DBFileTest, givesCopiesOfItsStrings)
{
    const DBFile file = someFile();
    std::string path = file.getPath();
    path += "changed";
    EXPECT_EQ("/v/music/x.mp3", file.getPath());
}

TEST(DBFileTest, isShownAsPathAndName)
{
    EXPECT_EQ("/v/music/x.mp3 | x.mp3", someFile().toString());
    EXPECT_EQ(" | ", DBFile().toString());
}

TEST(DBFileTest, equalsOneOfTheSameNameAndPathWhateverElseTheyHold)
{
    DBFile other;
    other.setName("x.mp3");
    other.setPath("/v/music/x.mp3");
    EXPECT_TRUE(someFile() == other);
    EXPECT_TRUE(other == someFile());
    EXPECT_TRUE(DBFile() == DBFile());
}

TEST(DBFileTest, differsInNameOrPathByteByByte)
{
    const auto differs = [](const std::string& path, const std::string& name) {
        DBFile other = someFile();
        other.setPath(path);
        other.setName(name);
        return !(someFile() == other) && !(other == someFile());
    };
    EXPECT_FALSE(differs("/v/music/x.mp3", "x.mp3"));
    EXPECT_TRUE(differs("/v/music/x.mp3", "y.mp3"));
    EXPECT_TRUE(differs("/w/music/x.mp3", "x.mp3"));
    EXPECT_TRUE(differs("/v/music/x.mp3", "X.mp3"));
    EXPECT_TRUE(differs("/v/music/x.mp3", std::string("x.mp3\0", 6)));
}

TEST(DBFileTest, livesInContainersByValue)
{
    std::deque<DBFile> files { someFile() };
    DBFile file = files.front();
    file.reset();
    EXPECT_EQ(dump(someFile()), dump(files.front()));
}

} // namespace
