#include "ctl/Bytes.h"
#include "ctl/report/DuplicateFinder.h"
#include "ctl/report/MonthlyTotals.h"
#include "ctl/report/TopFiles.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

TEST(FileSizeTest, aNegativeOneIsTheSmallestWithItsLowBits)
{
    EXPECT_EQ(0, fileSize(0));
    EXPECT_EQ(5LL << 30, fileSize(5LL << 30));
    EXPECT_EQ(3LL << 30, fileSize(-1073741824)); // as docs/catalogue.md has it
    EXPECT_EQ((1LL << 32) - 1, fileSize(-1));
    EXPECT_EQ(1LL << 31, fileSize(-(1LL << 31)));
    EXPECT_EQ(0, fileSize(-(1LL << 31) - 1));
    EXPECT_EQ(0, fileSize(-__LONG_LONG_MAX__ - 1));
}

class MonthlyTotalsTest : public testing::Test {
protected:
    void SetUp() override { useZone("UTC"); }
    void TearDown() override { useZone(nullptr); }

    static void useZone(const char* zone)
    {
        if (zone == nullptr)
            unsetenv("TZ");
        else
            setenv("TZ", zone, 1);
        tzset();
    }

    std::string text() const
    {
        std::string lines;
        for (const auto& [month, totals] : months.byName())
            lines += fmt::format("{} {} {}\n", month, fmt::join(totals.files, ","), fmt::join(totals.bytes, ","));
        return lines;
    }

    MonthlyTotals months;
};

TEST_F(MonthlyTotalsTest, theSecondDecides)
{
    months.add(1709251199, 0, 10); // 2024-02-29 23:59:59
    months.add(1709251200, 0, 20);
    months.add(1709251200, 3, 5);
    EXPECT_EQ("2024-02 1,0,0,0 10,0,0,0\n2024-03 1,0,0,1 20,0,0,5\n", text());
}

TEST_F(MonthlyTotalsTest, theZoneDecides)
{
    useZone("XXX-2"); // two hours ahead
    months.add(1709251199, 0, 10);
    EXPECT_EQ("2024-03 1,0,0,0 10,0,0,0\n", text());
}

TEST_F(MonthlyTotalsTest, everyTimeHasAMonth)
{
    months.add(-2147483648, 1, 1);
    months.add(-1, 1, 1);
    months.add(0, 1, 1);
    months.add(2147483647, 1, 1);
    EXPECT_EQ(
        "1901-12 0,1,0,0 0,1,0,0\n1969-12 0,1,0,0 0,1,0,0\n1970-01 0,1,0,0 0,1,0,0\n2038-01 0,1,0,0 0,1,0,0\n", text());
}

TEST_F(MonthlyTotalsTest, whatIsNoTimeCountsAsTheEarliest)
{
    months.add(__LONG_LONG_MAX__, 1, 1);
    months.add(-__LONG_LONG_MAX__, 1, 2);
    EXPECT_EQ("1900-01 0,2,0,0 0,3,0,0\n", text());
}

std::string paths(const TopFiles& files)
{
    std::string text;
    for (const ListedFile& file : files.sorted())
        text += file.path + " ";
    return text;
}

TEST(TopFilesTest, keepsTheGreatestInOrder)
{
    TopFiles files(3);
    EXPECT_EQ("", paths(files));
    for (const auto& [key, path] : std::initializer_list<std::pair<int, const char*>> {
             { 5, "five" }, { 1, "one" }, { 9, "nine" }, { 7, "seven" }, { -3, "less" }, { 8, "eight" } })
        files.offer(key, path, 11, 12);
    EXPECT_EQ("nine eight seven ", paths(files));
    EXPECT_EQ(11, files.sorted()[0].size);
    EXPECT_EQ(12, files.sorted()[0].time);
}

TEST(TopFilesTest, equalOnesStayAsTheyCame)
{
    TopFiles files(2);
    for (const char* path : { "a", "c", "b" })
        files.offer(1, path, 1, 1);
    EXPECT_EQ("a c ", paths(files));
}

class DuplicateFinderTest : public testing::Test {
protected:
    static std::string text(const DuplicateFinder::Result& result)
    {
        std::string lines = fmt::format("{} groups {} files {} bytes\n", result.groups, result.files, result.wasted);
        for (const DuplicateFinder::Group& group : result.largest)
            lines += fmt::format("{}x{}: {}\n", group.files, group.size, fmt::join(group.ids, " "));
        return lines;
    }

    DuplicateFinder finder;
};

TEST_F(DuplicateFinderTest, nameAndSizeMakeAPair)
{
    finder.add(1, "a", 10);
    finder.add(2, "a", 11);
    finder.add(3, "b", 10);
    EXPECT_EQ("0 groups 0 files 0 bytes\n", text(finder.find(9, 9)));
    finder.add(4, "a", 10);
    EXPECT_EQ("1 groups 2 files 10 bytes\n2x10: 1 4\n", text(finder.find(9, 9)));
}

TEST_F(DuplicateFinderTest, emptyFilesWasteNothing)
{
    finder.add(1, "a", 0);
    finder.add(2, "a", 0);
    EXPECT_EQ("0 groups 0 files 0 bytes\n", text(finder.find(9, 9)));
}

TEST_F(DuplicateFinderTest, theMostWastefulAreListedAndAllAreCounted)
{
    for (int id = 1; id <= 5; ++id)
        finder.add(id, "five", 3); // 12 bytes
    for (int id = 6; id <= 7; ++id)
        finder.add(id, "large", 100);
    for (int id = 8; id <= 9; ++id)
        finder.add(id, "small", 4);
    EXPECT_EQ("3 groups 9 files 116 bytes\n2x100: 6 7\n5x3: 1 2 3\n", text(finder.find(2, 3)));
}

TEST_F(DuplicateFinderTest, sumsStopAtTheGreatestNumber)
{
    for (int id = 1; id <= 3; ++id)
        finder.add(id, "a", __LONG_LONG_MAX__);
    EXPECT_EQ(fmt::format("1 groups 3 files {0} bytes\n3x{0}: 1\n", __LONG_LONG_MAX__), text(finder.find(1, 1)));
}

} // namespace
