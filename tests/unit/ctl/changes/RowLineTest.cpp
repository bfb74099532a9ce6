#include "ctl/changes/RowLine.h"
#include "ctl/Text.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

/// What setBytes() makes of the bytes, as text inside an object.
std::string defined(const std::string& bytes)
{
    nlohmann::ordered_json object;
    setBytes(object, "path", bytes);
    const std::string text = jsonText(object);
    return "," + text.substr(1, text.size() - 2);
}

std::string written(const std::string& bytes)
{
    std::string json;
    addJsonBytes(json, "path", bytes);
    return json;
}

TEST(RowLineTest, bytesAreWrittenAsSetBytesDefines)
{
    for (int first = 0; first < 256; ++first) {
        const std::string one(1, static_cast<char>(first));
        EXPECT_EQ(defined(one), written(one)) << first;
        EXPECT_EQ(defined("/a" + one + "z"), written("/a" + one + "z")) << first;
        for (int second = 0; second < 256; ++second) {
            const std::string two = one + static_cast<char>(second);
            EXPECT_EQ(defined(two), written(two)) << first << " " << second;
        }
    }
    for (const char* text :
        { "", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x8e\xb5", "\xed\xa0\x80", "\xf0\x9f\x8e", "\xe2\x80\xae" })
        EXPECT_EQ(defined(text), written(text)) << text;
}

} // namespace
