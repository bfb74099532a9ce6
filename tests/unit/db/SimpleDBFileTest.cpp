#include "db/SimpleDBFile.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>

static_assert(std::has_virtual_destructor_v<SimpleDBFile>);
static_assert(!std::is_default_constructible_v<SimpleDBFile>, "built from path, name and the two times only");
static_assert(std::is_same_v<std::string, decltype(std::declval<const SimpleDBFile>().getPath())>);
static_assert(std::is_same_v<std::string, decltype(std::declval<const SimpleDBFile>().getName())>);

namespace {

/// Every field: path, name, modified, created.
std::string dump(const SimpleDBFile& file)
{
    return "'" + file.getPath() + "' '" + file.getName() + "' " + std::to_string(file.getModifiedTime()) + " "
        + std::to_string(file.getCreatedTime());
}

SimpleDBFile simpleFile(const std::string& path, const std::string& name) { return SimpleDBFile(path, name, 0, 0); }

TEST(SimpleDBFileTest, holdsWhatItWasBuiltFrom)
{
    EXPECT_EQ("'/v/x.mp3' 'x.mp3' 1 2", dump(SimpleDBFile("/v/x.mp3", "x.mp3", 1, 2)));
}

TEST(SimpleDBFileTest, isEmptyAfterReset)
{
    SimpleDBFile file("/v/x.mp3", "x.mp3", 1, 2);
    file.reset();
    EXPECT_EQ("'' '' 0 0", dump(file));
}

TEST(SimpleDBFileTest, isCopiedInAllItsFields)
{
    SimpleDBFile original("/v/x.mp3", "x.mp3", 1, 2);
    const SimpleDBFile copy(original);
    SimpleDBFile assigned("", "", 0, 0);
    assigned = original;
    original.reset();
    EXPECT_EQ("'/v/x.mp3' 'x.mp3' 1 2", dump(copy));
    EXPECT_EQ("'/v/x.mp3' 'x.mp3' 1 2", dump(assigned));
}

TEST(SimpleDBFileTest, equalsOneOfTheSameNameAndPathWhateverItsTimes)
{
    EXPECT_TRUE(SimpleDBFile("/a", "a", 1, 2) == SimpleDBFile("/a", "a", 3, 4));
    EXPECT_FALSE(simpleFile("/a", "a") == simpleFile("/a", "b"));
    EXPECT_FALSE(simpleFile("/a", "a") == simpleFile("/b", "a"));
    EXPECT_FALSE(simpleFile("/a", "a") == simpleFile("/a", "A"));
}

TEST(SimpleDBFileTest, isLessOnlyWhenNeitherPathNorNameIsGreater)
{
    EXPECT_TRUE(simpleFile("/a", "a") < simpleFile("/b", "b"));
    EXPECT_FALSE(simpleFile("/a", "z") < simpleFile("/b", "a")); // not lexicographic
    EXPECT_FALSE(simpleFile("/b", "a") < simpleFile("/a", "z"));
    EXPECT_FALSE(simpleFile("/b", "b") < simpleFile("/a", "a"));
    EXPECT_TRUE(simpleFile("/a", "x") < simpleFile("/b", "x"));
    EXPECT_FALSE(simpleFile("/b", "x") < simpleFile("/a", "x"));
    EXPECT_TRUE(simpleFile("/a", "x") < simpleFile("/a", "y"));
    EXPECT_FALSE(simpleFile("/a", "y") < simpleFile("/a", "x"));
}

TEST(SimpleDBFileTest, isLessThanOneOfTheSamePathAndNameAndTheOtherWayRoundToo)
{
    EXPECT_TRUE(SimpleDBFile("/a", "a", 1, 2) < SimpleDBFile("/a", "a", 3, 4));
    EXPECT_TRUE(SimpleDBFile("/a", "a", 3, 4) < SimpleDBFile("/a", "a", 1, 2));
}

} // namespace
