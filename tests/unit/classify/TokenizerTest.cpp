#include "classify/Tokenizer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

/// The tokens still to come, each in brackets.
/// More tokens than any of these texts has, so that one that never ends does not fill the memory.
constexpr int mostTokens = 1000;

std::string remaining(Tokenizer& tokenizer)
{
    std::string all;
    int left = mostTokens;
    for (std::string token = tokenizer.next(); !token.empty() && left-- > 0; token = tokenizer.next())
        all += "[" + token + "]";
    return all;
}

std::string split(const std::string& text, const std::string& delimiters)
{
    Tokenizer tokenizer(text, delimiters);
    return remaining(tokenizer);
}

TEST(TokenizerTest, takesAPathApart)
{
    Tokenizer tokenizer("/Music/Rock/Live", "/");
    EXPECT_EQ("Music", tokenizer.next());
    EXPECT_EQ("Rock", tokenizer.next());
    EXPECT_EQ("Live", tokenizer.next());
    EXPECT_EQ("", tokenizer.next());
}

TEST(TokenizerTest, makesNoEmptyTokensOfLeadingRepeatedAndTrailingDelimiters)
{
    EXPECT_EQ("[a][b]", split("/a//b/", "/"));
    EXPECT_EQ("[a][b]", split("////a///b", "/"));
}

TEST(TokenizerTest, staysAtTheEndOnEveryFurtherCall)
{
    Tokenizer tokenizer("/a//b/", "/");
    EXPECT_EQ("[a][b]", remaining(tokenizer));
    for (int call = 0; call < 5; ++call)
        EXPECT_EQ("", tokenizer.next());
}

TEST(TokenizerTest, findsNothingInAnEmptyTextOrInDelimitersAlone)
{
    EXPECT_EQ("", split("", "/"));
    EXPECT_EQ("", split("", ""));
    EXPECT_EQ("", split("/", "/"));
    EXPECT_EQ("", split("////", "/"));
}

TEST(TokenizerTest, takesTheWholeTextAsOneTokenWithoutDelimiters)
{
    EXPECT_EQ("[/a b\t//c/]", split("/a b\t//c/", ""));
}

TEST(TokenizerTest, takesEachCharacterOfTheSetAsADelimiter)
{
    EXPECT_EQ("[a][b][c][d e]", split("a/b;/;c,d e", "/;,"));
    EXPECT_EQ("[a:][:b]", split("a:/:b", "/"));
}

TEST(TokenizerTest, startsEmptyWhenMadeOfNothing)
{
    Tokenizer tokenizer;
    EXPECT_EQ("", tokenizer.next());
    EXPECT_EQ("", tokenizer.next());
}

TEST(TokenizerTest, splitsAtTheSixWhiteSpaceCharactersByDefault)
{
    Tokenizer tokenizer;
    tokenizer.setString(" a\tb\vc\nd\re\ff \t\v\n\r\f g");
    EXPECT_EQ("[a][b][c][d][e][f][g]", remaining(tokenizer));
    tokenizer.setString("a/b,c\xA0"
                        "d"); // not a blank: bytes are not read as Latin-1
    EXPECT_EQ("[a/b,c\xA0"
              "d]",
        remaining(tokenizer));
}

TEST(TokenizerTest, knowsItsDelimiters)
{
    Tokenizer byDefault;
    for (const char c : std::string(" \t\v\n\r\f"))
        EXPECT_TRUE(byDefault.isDelimiter(c)) << static_cast<int>(c);
    for (const char c : std::string("/a\0\b\x1f\x7f\xA0", 7))
        EXPECT_FALSE(byDefault.isDelimiter(c)) << static_cast<int>(c);

    Tokenizer ofPaths("/a", "/");
    EXPECT_TRUE(ofPaths.isDelimiter('/'));
    EXPECT_FALSE(ofPaths.isDelimiter(' '));
    EXPECT_FALSE(Tokenizer("/a", "").isDelimiter('/'));
}

TEST(TokenizerTest, skipsTheDelimitersAheadAndNothingElse)
{
    Tokenizer tokenizer("//a//b", "/");
    tokenizer.skipDelimiter();
    tokenizer.skipDelimiter();
    EXPECT_EQ("a", tokenizer.next());
    tokenizer.skipDelimiter();
    EXPECT_EQ("[b]", remaining(tokenizer));
    tokenizer.skipDelimiter();
    EXPECT_EQ("", tokenizer.next());
}

TEST(TokenizerTest, startsAgainFromTheFirstTokenWhenTheDelimitersChange)
{
    Tokenizer tokenizer("/a/b c/d", "/");
    EXPECT_EQ("a", tokenizer.next());
    EXPECT_EQ("b c", tokenizer.next());
    tokenizer.setDelimiter("/");
    EXPECT_EQ("a", tokenizer.next());
    EXPECT_EQ("b c", tokenizer.next());
    tokenizer.setDelimiter(" ");
    EXPECT_EQ("[/a/b][c/d]", remaining(tokenizer));
    tokenizer.setDelimiter("/");
    EXPECT_EQ("[a][b c][d]", remaining(tokenizer));
}

TEST(TokenizerTest, startsAgainWithANewTextAndKeepsTheDelimiters)
{
    Tokenizer tokenizer("/a/b", "/");
    EXPECT_EQ("a", tokenizer.next());
    tokenizer.setString("/x y/z");
    EXPECT_EQ("[x y][z]", remaining(tokenizer));
    tokenizer.setString("");
    EXPECT_EQ("", tokenizer.next());
    tokenizer.setString("q");
    EXPECT_EQ("[q]", remaining(tokenizer));
}

TEST(TokenizerTest, startsAgainWhenTextAndDelimitersAreSet)
{
    Tokenizer tokenizer("/a/b", "/");
    EXPECT_EQ("a", tokenizer.next());
    tokenizer.set("c d/e", " ");
    EXPECT_EQ("[c][d/e]", remaining(tokenizer));
    tokenizer.set("c d/e", "/");
    EXPECT_EQ("[c d][e]", remaining(tokenizer));
}

TEST(TokenizerTest, ownsACopyOfItsText)
{
    std::string text = "/a/b";
    Tokenizer tokenizer(text, "/");
    text = "/other/text";
    EXPECT_EQ("[a][b]", remaining(tokenizer));
}

TEST(TokenizerTest, goesOnFromTheSamePlaceWhenCopied)
{
    Tokenizer original("/a/b/c", "/");
    EXPECT_EQ("a", original.next());
    Tokenizer copy(original);
    EXPECT_EQ("b", original.next());
    original.setString("/elsewhere");
    EXPECT_EQ("[b][c]", remaining(copy));
    EXPECT_EQ("[elsewhere]", remaining(original));
}

TEST(TokenizerTest, takesNamesAsBytes)
{
    EXPECT_EQ("[caf\xe9][\xff\xfe][\xc3\xa9]", split("/caf\xe9/\xff\xfe/\xc3\xa9", "/"));
    EXPECT_EQ("[a][b]",
        split("a\xff\xff"
              "b",
            "\xff"));
    const std::string withNul("a\0b/c", 5);
    EXPECT_EQ(std::string("[a\0b][c]", 8), split(withNul, "/"));
    EXPECT_EQ("[a][b/c]", split(withNul, std::string(1, '\0')));
}

TEST(TokenizerTest, forgetsItsLastTokenWhenTheTextBecomesEmpty)
{
    Tokenizer tokenizer("/a/b", "/");
    EXPECT_EQ("a", tokenizer.next());
    tokenizer.setString("");
    EXPECT_EQ("", tokenizer.next());
    tokenizer.set("/c", "/");
    EXPECT_EQ("c", tokenizer.next());
    tokenizer.set("", "/");
    EXPECT_EQ("", tokenizer.next());
}

} // namespace
