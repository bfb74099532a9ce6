#include "ctl/find/Glob.h"

#include <gtest/gtest.h>

#include <fnmatch.h>

#include <random>
#include <string>

namespace {

bool matches(const std::string& pattern, const std::string& text) { return Glob(pattern).matches(text); }

TEST(GlobTest, wildcardsStandForWhatTheyDoElsewhere)
{
    EXPECT_TRUE(matches("*.mp3", "a.b.mp3"));
    EXPECT_TRUE(matches("*.mp3", ".mp3"));
    EXPECT_FALSE(matches("*.mp3", "a.mp3x"));
    EXPECT_TRUE(matches("a?c", "abc"));
    EXPECT_FALSE(matches("a?c", "ac"));
    EXPECT_TRUE(matches("a*b*c", "a/b/bxc"));
    EXPECT_FALSE(matches("a*b*c", "acb"));
    EXPECT_TRUE(matches("*", ""));
    EXPECT_FALSE(matches("?", ""));
    EXPECT_TRUE(matches("", ""));
    EXPECT_FALSE(matches("", "a"));
    EXPECT_FALSE(matches("ab", "abc"));
}

TEST(GlobTest, setsHaveRangesClassesAndNegation)
{
    EXPECT_TRUE(matches("[a-c]", "b"));
    EXPECT_FALSE(matches("[a-c]", "d"));
    EXPECT_TRUE(matches("[!a-c]", "d"));
    EXPECT_FALSE(matches("[^a-c]", "b"));
    EXPECT_TRUE(matches("[]]", "]"));
    EXPECT_TRUE(matches("[!]]", "["));
    EXPECT_TRUE(matches("[a-]", "-"));
    EXPECT_TRUE(matches("[[:digit:]x]", "7"));
    EXPECT_TRUE(matches("[[:digit:]x]", "x"));
    EXPECT_FALSE(matches("[[:digit:]x]", "d"));
    EXPECT_TRUE(matches("[\\]]", "]"));
}

TEST(GlobTest, bracketsAndStarsCanStandForThemselves)
{
    EXPECT_TRUE(matches("[[]live[]].mp3", "[live].mp3"));
    EXPECT_TRUE(matches("\\[live\\]*", "[live].mp3"));
    EXPECT_TRUE(matches("*[live", "a[live")); // the bracket is never closed
    EXPECT_TRUE(matches("\\*", "*"));
    EXPECT_FALSE(matches("\\*", "a"));
    EXPECT_TRUE(matches("?\\", "a\\"));
}

TEST(GlobTest, aCharacterIsOneOfUtf8OrAByteThatIsNone)
{
    EXPECT_TRUE(matches("caf?", "caf\xc3\xa9"));
    EXPECT_FALSE(matches("caf??", "caf\xc3\xa9"));
    EXPECT_TRUE(matches("?\xff?", "\xfe\xff\xc3"));
    EXPECT_TRUE(matches("[\xc3\xa0-\xc3\xbf]", "\xc3\xa9")); // from a with grave to y with diaeresis
    EXPECT_FALSE(matches("[\xc3\xa0-\xc3\xbf]", "\xa9"));
    EXPECT_TRUE(matches("[!a]", "\xf0\x9f\x8e\xb5"));
    EXPECT_TRUE(matches("[\xff]", "\xff"));
    EXPECT_FALSE(matches("*\xa9", "caf\xc3\xa9")); // the byte is part of a character
    EXPECT_TRUE(matches("*\xa9", "caf\xa9"));
}

TEST(GlobTest, ignoresTheCaseOfAsciiLettersOnly)
{
    EXPECT_TRUE(Glob("*.MP3", true).matches("a.mp3"));
    EXPECT_TRUE(Glob("[A-C]?", true).matches("bX"));
    EXPECT_TRUE(Glob("[a-c]x", true).matches("BX"));
    EXPECT_FALSE(Glob("[!a-c]", true).matches("B"));
    EXPECT_FALSE(Glob("\xc3\xa9*", true).matches("\xc3\x89"));
    EXPECT_EQ("", Glob("IMG*", true).beginning());
}

TEST(GlobTest, knowsWhatEveryMatchBeginsWith)
{
    EXPECT_EQ("IMG_", Glob("IMG_*.jpg").beginning());
    EXPECT_EQ("", Glob("*.jpg").beginning());
    EXPECT_EQ("a[b", Glob("a\\[b[0-9]c").beginning());
    EXPECT_EQ("", Glob("?a").beginning());
}

TEST(GlobTest, manyStarsDoNotTakeForever)
{
    std::string pattern;
    for (int i = 0; i < 100; ++i)
        pattern += "*a";
    EXPECT_FALSE(matches(pattern + "*b", std::string(20000, 'a')));
    EXPECT_TRUE(matches(pattern, std::string(20000, 'a')));
}

TEST(GlobTest, agreesWithTheCLibraryOnRandomPatterns)
{
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same patterns in each run
    const std::string patternBytes = "ab*?[]!^-\\";
    const std::string textBytes = "ab[]!-\\^";
    const auto make = [&random](const std::string& bytes, std::size_t most) {
        std::string text;
        for (std::size_t length = random() % most; length > 0; --length)
            text += bytes[random() % bytes.size()];
        return text;
    };
    int hits = 0;
    int compared = 0;
    for (int i = 0; i < 200000; ++i) {
        const std::string pattern = make(patternBytes, 8);
        // What POSIX leaves open: a backslash at the end, or in a set, and sets that end in no bracket or run
        // backwards.
        const std::size_t bracket = pattern.find('[');
        if ((!pattern.empty() && pattern.back() == '\\')
            || (bracket != std::string::npos
                && (pattern.find('\\') != std::string::npos || pattern.find('-') != std::string::npos
                    || pattern.find(']', bracket + 3) == std::string::npos)))
            continue;
        const std::string text = make(textBytes, 6);
        const bool expected = fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
        EXPECT_EQ(expected, matches(pattern, text)) << pattern << " on " << text;
        hits += expected ? 1 : 0;
        ++compared;
    }
    EXPECT_GT(compared, 50000);
    EXPECT_GT(hits, 5000);
}

} // namespace
