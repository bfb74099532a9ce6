#include "ctl/find/BestRows.h"

#include <gtest/gtest.h>

namespace {

std::string text(BestRows& best)
{
    std::string line;
    for (const BestRows::Entry& entry : best.take())
        line += std::to_string(entry.volume) + entry.row.path + "=" + std::to_string(entry.value) + " ";
    return line;
}

void add(BestRows& best, long long value, std::size_t volume, const char* path)
{
    Row row;
    row.path = path;
    best.add(value, volume, row);
}

TEST(BestRowsTest, keepsTheGreatestInOrder)
{
    BestRows best(3);
    for (const int value : { 5, 1, 9, 3, 7, 8, 2 })
        add(best, value, 0, "/a");
    EXPECT_EQ("0/a=9 0/a=8 0/a=7 ", text(best));
    EXPECT_EQ("", text(best));
}

TEST(BestRowsTest, equalOnesAreKeptByVolumeAndPathWhateverTheOrder)
{
    BestRows best(2);
    for (const char* path : { "/c", "/a", "/d", "/b" })
        add(best, 1, 0, path);
    EXPECT_EQ("0/a=1 0/b=1 ", text(best));
    add(best, 1, 1, "/a");
    add(best, 1, 0, "/z");
    EXPECT_EQ("0/z=1 1/a=1 ", text(best));
}

TEST(BestRowsTest, keepsAllWhenThereAreFewer)
{
    BestRows best(10);
    add(best, -1, 0, "/before 1970");
    EXPECT_EQ("0/before 1970=-1 ", text(best));
}

} // namespace
