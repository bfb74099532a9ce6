#include "ctl/Text.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

TEST(TextTest, controlCharactersAndBrokenBytesAreShownAsSuch)
{
    EXPECT_EQ("a\\nb\\tc\\x1b[2J\\x7f", visible("a\nb\tc\x1b[2J\x7f"));
    EXPECT_EQ("\\xff\\xc0\\x80\\xed\\xa0\\x80", visible("\xff\xc0\x80\xed\xa0\x80"));
    EXPECT_EQ("\xc3\xa9\xe2\x82\xac\xf0\x9f\x8e\xb5 \\", visible("\xc3\xa9\xe2\x82\xac\xf0\x9f\x8e\xb5 \\"));
    EXPECT_EQ("\\xc2\\x9b", visible("\xc2\x9b")); // which some terminals take for the beginning of a command
    EXPECT_EQ("a\\xc3", visible("a\xc3"));        // cut in the middle of a character
}

TEST(TextTest, isUtf8KnowsWhatIsNone)
{
    for (const char* good : { "", "a", "\xc3\xa9", "\xef\xbf\xbf", "\xf4\x8f\xbf\xbf" })
        EXPECT_TRUE(isUtf8(good)) << good;
    for (const char* bad :
        { "\x80", "\xc1\xbf", "\xe0\x9f\xbf", "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xe2\x82" })
        EXPECT_FALSE(isUtf8(bad)) << visible(bad);
}

TEST(TextTest, jsonCarriesEveryByte)
{
    nlohmann::ordered_json object;
    setBytes(object, "path", "/caf\xc3\xa9");
    EXPECT_EQ("{\"path\":\"/caf\xc3\xa9\"}", object.dump());
    object.clear();
    setBytes(object, "path", "/a\xff\n");
    EXPECT_EQ("{\"path\":\"/a\xef\xbf\xbd\\n\",\"path_hex\":\"2f61ff0a\"}", object.dump());
}

TEST(TextTest, jsonDoesNotControlATerminal)
{
    const std::string name = "/\x01\x7f\xc2\x80-\xc2\x9b\xc2\xa0\xc3\x9b\xe2\x82\x9b";
    nlohmann::ordered_json object;
    setBytes(object, "path", name);
    const std::string json = jsonText(object);
    EXPECT_EQ("{\"path\":\"/\\u0001\\u007f\\u0080-\\u009b\xc2\xa0\xc3\x9b\xe2\x82\x9b\"}", json);
    EXPECT_EQ(name, nlohmann::json::parse(json).at("path").get<std::string>());
    EXPECT_EQ("{\n  \"path\": \"\\u009b\"\n}", jsonText({ { "path", "\xc2\x9b" } }, 2));
}

TEST(TextTest, numbersForPeople)
{
    EXPECT_EQ("0 bytes", humanBytes(0));
    EXPECT_EQ("1023 bytes", humanBytes(1023));
    EXPECT_EQ("1.0 KiB", humanBytes(1024));
    EXPECT_EQ("8.0 EiB", humanBytes(9223372036854775807));
    EXPECT_EQ("-1.0 GiB", humanBytes(-1073741824));
    EXPECT_EQ("0", withSeparators(0));
    EXPECT_EQ("999", withSeparators(999));
    EXPECT_EQ("1,000", withSeparators(1000));
    EXPECT_EQ("-123,456", withSeparators(-123456));
    EXPECT_EQ("-1,234,567", withSeparators(-1234567));
}

TEST(TextTest, aTimeWithoutAYearIsANumber) { EXPECT_EQ("9223372036854775807", localTime(9223372036854775807)); }

} // namespace
