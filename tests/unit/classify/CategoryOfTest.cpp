#include "classify/CategoryOf.h"

#include "classify/PrivateMimeTable.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

/// The category of each of the names in turn, with a table that the process reads once: one test in this suite.
std::string categoriesOf(const std::vector<std::string>& fileNames)
{
    std::string all;
    for (const std::string& fileName : fileNames)
        all += std::to_string(categoryOf(fileName));
    return all;
}

TEST(CategoryOfTest, isThatOfWhatFollowsTheLastDot)
{
    const PrivateMimeTable table("video/mp4 mp4\naudio/mpeg mp3\nimage/jpeg jpg\n");
    EXPECT_EQ("123", categoriesOf({ "a.mp4", "b.mp3", "c.jpg" }));
    EXPECT_EQ("124", categoriesOf({ "a.mp3.mp4", "a..mp3", "a.mp3.bak" }));
    EXPECT_EQ("24444", categoriesOf({ ".mp3", "mp3", "mp3.", ".", "" }));
    EXPECT_EQ("444", categoriesOf({ "a.MP3", "a.mp3 ", "a.mp3\n" }));
}

} // namespace
