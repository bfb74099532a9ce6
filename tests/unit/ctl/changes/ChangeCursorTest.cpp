#include "ctl/changes/ChangeCursor.h"
#include "ctl/Problem.h"
#include "ctl/changes/CursorFile.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <limits>

namespace {

constexpr long long least = std::numeric_limits<long long>::min();
constexpr long long greatest = std::numeric_limits<long long>::max();

VolumePosition strangePosition()
{
    VolumePosition position;
    position.identity = "b12-34";
    position.lastFolder = 1;
    position.lastFile = greatest;
    position.floor = least;
    position.settled = -3;
    position.newest = 4;
    position.oldest = -5;
    position.readAt = 6;
    position.clockOffset = -7;
    position.boot = ~0ULL;
    position.digest = 8;
    position.witnessKind = 'f';
    position.witnessId = 9;
    position.witnessHash = 10;
    position.doubtUntil = -11;
    position.threshold = 12;
    return position;
}

void expectSame(const VolumePosition& a, const VolumePosition& b)
{
    EXPECT_EQ(a.identity, b.identity);
    EXPECT_EQ(a.lastFolder, b.lastFolder);
    EXPECT_EQ(a.lastFile, b.lastFile);
    EXPECT_EQ(a.floor, b.floor);
    EXPECT_EQ(a.settled, b.settled);
    EXPECT_EQ(a.newest, b.newest);
    EXPECT_EQ(a.oldest, b.oldest);
    EXPECT_EQ(a.readAt, b.readAt);
    EXPECT_EQ(a.clockOffset, b.clockOffset);
    EXPECT_EQ(a.boot, b.boot);
    EXPECT_EQ(a.digest, b.digest);
    EXPECT_EQ(a.witnessKind, b.witnessKind);
    EXPECT_EQ(a.witnessId, b.witnessId);
    EXPECT_EQ(a.witnessHash, b.witnessHash);
    EXPECT_EQ(a.doubtUntil, b.doubtUntil);
    EXPECT_EQ(a.threshold, b.threshold);
}

/// Three volumes, with names that no shell and no terminal likes.
ChangeCursor strangeCursor()
{
    ChangeCursor cursor;
    cursor.positions[""] = strangePosition();
    cursor.positions["a b\n'\"$:.\xff"] = VolumePosition { "i5" };
    cursor.positions["Media"] = strangePosition();
    return cursor;
}

TEST(ChangeCursorTest, textBringsBackEveryField)
{
    const ChangeCursor cursor = strangeCursor();
    const ChangeCursor again = ChangeCursor::parse("  " + cursor.text() + "\r\n", "here");
    ASSERT_EQ(cursor.positions.size(), again.positions.size());
    for (const auto& [name, position] : cursor.positions) {
        ASSERT_EQ(1U, again.positions.count(name));
        expectSame(position, again.positions.at(name));
    }
    EXPECT_EQ(cursor.text(), again.text());
}

TEST(ChangeCursorTest, textIsOneHarmlessWord)
{
    const std::string text = strangeCursor().text();
    EXPECT_EQ(std::string::npos, text.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789.:-")) << text;
    EXPECT_NE('-', text.front());
}

TEST(ChangeCursorTest, nothingIsACursorWithoutPositions)
{
    EXPECT_TRUE(ChangeCursor::parse("", "here").positions.empty());
    EXPECT_TRUE(ChangeCursor::parse(" \n", "here").positions.empty());
    EXPECT_TRUE(ChangeCursor::parse(ChangeCursor().text(), "here").positions.empty());
}

TEST(ChangeCursorTest, everyCutAndEveryChangedCharacterIsRefused)
{
    const std::string good = strangeCursor().text();
    for (std::size_t i = 1; i < good.size(); ++i)
        EXPECT_THROW(ChangeCursor::parse(good.substr(0, i), "here"), Problem) << i;
    for (std::size_t i = 0; i < good.size(); ++i) {
        std::string bad = good;
        bad[i] = bad[i] == '1' ? '2' : '1';
        EXPECT_THROW(ChangeCursor::parse(bad, "here"), Problem) << bad;
    }
    EXPECT_THROW(ChangeCursor::parse(good + "0", "here"), Problem);
    EXPECT_THROW(ChangeCursor::parse(good + " " + good, "here"), Problem);
}

TEST(ChangeCursorTest, refusalNamesItsOrigin)
{
    try {
        ChangeCursor::parse("nonsense", "/some/file");
        FAIL();
    } catch (const Problem& problem) {
        EXPECT_EQ(0U, std::string(problem.what()).find("/some/file: ")) << problem.what();
    }
}

TEST(CursorFileTest, writesReadsAndReplacesAlsoThroughALink)
{
    const TemporaryFolder folder;
    const std::string path = folder.path() + "/cursor";
    EXPECT_EQ("", CursorFile(path).read());
    CursorFile(path).write("one");
    EXPECT_EQ("one\n", CursorFile(path).read());
    const std::string link = folder.path() + "/link";
    ASSERT_EQ(0, symlink(path.c_str(), link.c_str()));
    CursorFile(link).write("two");
    EXPECT_EQ("two\n", CursorFile(path).read());
    const std::filesystem::directory_iterator entries(folder.path());
    EXPECT_EQ(2, std::distance(begin(entries), end(entries))) << "the file, the link, and nothing beside them";
}

TEST(CursorFileTest, refusesWhatCannotHoldAFile)
{
    const TemporaryFolder folder;
    EXPECT_THROW(CursorFile(folder.path() + "/missing/cursor"), Problem);
    EXPECT_THROW(CursorFile(folder.path()), Problem);
}

} // namespace
