#include "ctl/find/SizeAndAge.h"

#include "ctl/Problem.h"

#include <gtest/gtest.h>

namespace {

TEST(SizeAndAgeTest, sizesAreBytesOrHaveAUnit)
{
    EXPECT_EQ(0, parseSize("--larger", "0"));
    EXPECT_EQ(2000, parseSize("--larger", "2000"));
    EXPECT_EQ(2000, parseSize("--larger", "2000B"));
    EXPECT_EQ(10485760, parseSize("--larger", "10M"));
    EXPECT_EQ(10485760, parseSize("--larger", "10MiB"));
    EXPECT_EQ(10000000, parseSize("--larger", "10MB"));
    EXPECT_EQ(1610612736, parseSize("--larger", "1.5g"));
    EXPECT_EQ(512, parseSize("--larger", ".5k"));
    EXPECT_EQ(1125899906842624, parseSize("--larger", "1P"));
}

TEST(SizeAndAgeTest, agesHaveAUnit)
{
    EXPECT_EQ(30, parseAge("--changed-within", "30s"));
    EXPECT_EQ(5400, parseAge("--changed-within", "90m"));
    EXPECT_EQ(10800, parseAge("--changed-within", "3h"));
    EXPECT_EQ(172800, parseAge("--changed-within", "2d"));
    EXPECT_EQ(907200, parseAge("--changed-within", "1.5w"));
}

TEST(SizeAndAgeTest, whatIsNeitherIsRefused)
{
    for (const char* text :
        { "", "M", "-1", "+1", "1 M", "1X", "10MX", "inf", "nan", "1e3", "0x10", "1.2.3", ".", "9e", "99999999P" })
        EXPECT_THROW(parseSize("--larger", text), Problem) << text;
    for (const char* text : { "", "d", "2", "-2d", "2D", "2days", "inf", "2 d", "1e3d", "99999999999999999999w" })
        EXPECT_THROW(parseAge("--changed-within", text), Problem) << text;
}

TEST(SizeAndAgeTest, aRefusalNamesTheOptionAndWhatToGive)
{
    try {
        parseAge("--changed-within", "2");
        FAIL();
    } catch (const Problem& problem) {
        EXPECT_STREQ(
            "--changed-within 2: This is no span of time. Give a number with its unit: 30s, 90m (minutes), 3h, 2d "
            "or 1w.",
            problem.what());
    }
}

} // namespace
