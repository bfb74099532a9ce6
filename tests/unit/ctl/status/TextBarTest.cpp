#include "ctl/status/TextBar.h"

#include <gtest/gtest.h>

namespace {

TEST(TextBarTest, aBarIsFilledByItsPart)
{
    EXPECT_EQ("[          ]", bar(0, 10));
    EXPECT_EQ("[###       ]", bar(0.3, 10));
    EXPECT_EQ("[##########]", bar(1, 10));
    EXPECT_EQ("[##########]", bar(7, 10));
    EXPECT_EQ("[          ]", bar(-1, 10));
}

TEST(TextBarTest, durationsHaveTwoUnitsAtTheMost)
{
    EXPECT_EQ("0 s", duration(-5));
    EXPECT_EQ("59 s", duration(59));
    EXPECT_EQ("1 min 0 s", duration(60));
    EXPECT_EQ("59 min 59 s", duration(3599));
    EXPECT_EQ("1 h 0 min", duration(3600));
    EXPECT_EQ("23 h 59 min", duration(86399));
    EXPECT_EQ("2 d 3 h", duration(2 * 86400 + 3 * 3600 + 59));
}

TEST(TextBarTest, aCutLineEndsItsColour)
{
    EXPECT_EQ("abc", cutToColumns("abc", 3));
    EXPECT_EQ("ab", cutToColumns("abc", 2));
    EXPECT_EQ("\033[31mab\033[0m", cutToColumns("\033[31mabc\033[0m", 2));
    EXPECT_EQ("\033[31mab\033[0mc", cutToColumns("\033[31mab\033[0mcd", 3));
    EXPECT_EQ("\xc3\xa9\xc3\xa9", cutToColumns("\xc3\xa9\xc3\xa9\xc3\xa9", 2));
    EXPECT_EQ("", cutToColumns("abc", 0));
}

} // namespace
