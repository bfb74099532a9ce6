#include "ctl/find/NamePattern.h"

#include <gtest/gtest.h>

namespace {

TEST(NamePatternTest, withoutWildcardsItIsAPart)
{
    const NamePattern part("ive");
    EXPECT_TRUE(part.matches("olives.jpg"));
    EXPECT_TRUE(part.matches("ive"));
    EXPECT_FALSE(part.matches("IVE"));
    EXPECT_FALSE(part.only());
    EXPECT_EQ("", part.beginning());
    EXPECT_TRUE(NamePattern("").matches("anything"));
    EXPECT_TRUE(NamePattern("a\\b").matches("xa\\by"));
}

TEST(NamePatternTest, withWildcardsItIsTheWhole)
{
    const NamePattern glob("live*");
    EXPECT_TRUE(glob.matches("live.mp3"));
    EXPECT_FALSE(glob.matches("olive.mp3"));
    EXPECT_EQ("live", glob.beginning());
}

TEST(NamePatternTest, exactMeansEveryByte)
{
    const NamePattern exact("*[a]?", NamePattern::Words::exact);
    EXPECT_TRUE(exact.matches("*[a]?"));
    EXPECT_FALSE(exact.matches("x*[a]?"));
    EXPECT_FALSE(exact.matches("xax"));
    EXPECT_EQ("*[a]?", exact.only());
}

TEST(NamePatternTest, theCaseOfAsciiLettersCanBeIgnored)
{
    EXPECT_TRUE(NamePattern("IvE", NamePattern::Words::wildcards, true).matches("Olives"));
    EXPECT_TRUE(NamePattern("", NamePattern::Words::wildcards, true).matches(""));
    EXPECT_FALSE(NamePattern("\xc3\xa9", NamePattern::Words::wildcards, true).matches("\xc3\x89"));
    const NamePattern exact("COVER.jpg", NamePattern::Words::exact, true);
    EXPECT_TRUE(exact.matches("cover.JPG"));
    EXPECT_FALSE(exact.matches("cover.JPGx"));
    EXPECT_FALSE(exact.matches("cover.JP"));
    EXPECT_FALSE(exact.only());
}

TEST(NamePatternTest, aSlashMakesItOneForPaths)
{
    EXPECT_TRUE(NamePattern("a/b").isAboutPaths());
    EXPECT_TRUE(NamePattern("/").isAboutPaths());
    EXPECT_FALSE(NamePattern("a*b").isAboutPaths());
}

} // namespace
