#include "ctl/status/Rewalk.h"

#include "support/TemporaryFolder.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace {

/// A daemon with a main, a watcher and a purge thread, in a /proc of the test's own.
class RewalkEndTest : public testing::Test {
protected:
    RewalkEndTest()
    {
        proc.writeFile("7/stat", stat);
        for (const int id : { 7, 8, 9 })
            thread(id);
    }

    void thread(int id) const
    {
        proc.writeFile(fmt::format("7/task/{}/stat", id), stat);
        proc.writeFile(fmt::format("7/task/{}/schedstat", id), "1000 0 1\n"); // no time goes by
    }
    void block(const char* signals) const
    {
        proc.writeFile("7/status", fmt::format("Name:\tquarrow\nShdPnd:\t0\nSigBlk:\t{}\n", signals));
    }

    const std::string stat = "7 (quarrow) S 1 7 7 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 3 0 1000 111\n";
    const char* const usr1 = "0000000000000200";
    const char* const others = "fffffffffffffdff";
    TemporaryFolder proc;
};

TEST_F(RewalkEndTest, aMainThreadThatSleepsInAPurgeMayBeginAnotherWalk)
{
    constexpr int longSleep = 20; // looks
    block(usr1);
    int looks = 0;
    EXPECT_TRUE(Rewalk(ProcessFacts(7, proc.path())).waitForEnd([&] {
        if (++looks == longSleep)
            thread(10); // the walk
        else if (looks == longSleep + 1)
            block(others);
        else if (looks == longSleep + 2)
            proc.remove("7/task/10");
    }));
    EXPECT_EQ(longSleep + 2, looks);
}

TEST_F(RewalkEndTest, aDaemonThatEndsHasNotWalked)
{
    block(usr1);
    EXPECT_FALSE(Rewalk(ProcessFacts(7, proc.path())).waitForEnd([&] { proc.remove("7"); }));
}

TEST(LatestNextWishTest, theDaemonsFirstMinuteEndsWithTheSignal)
{
    EXPECT_EQ(1030 + 300, latestNextWish(1030, 1000, 1002));
}

TEST(LatestNextWishTest, itsLoopBeginsAMinuteAfterItsStartAtTheLatest)
{
    EXPECT_EQ(1063 + 300, latestNextWish(1200, 1000, 1002));
    EXPECT_EQ(1063 + 300, latestNextWish(1299, 1000, 1002));
}

TEST(LatestNextWishTest, laterTheLastWalkMayJustHaveBegun)
{
    EXPECT_EQ(1300 + 300, latestNextWish(1300, 1000, 1002));
    EXPECT_EQ(99000 + 300, latestNextWish(99000, 1000, 1002));
}

TEST(WhyNoWalkBeganTest, whereNothingWasWalkedItIsTheTime)
{
    EXPECT_EQ("No walk has been seen to begin: the last one, or the start of the daemon, seems to be less than 300 "
              "seconds ago",
        whyNoWalkBegan(0, 2));
}

TEST(WhyNoWalkBeganTest, whereTheRestMayBeLeftOutThatIsSaid)
{
    EXPECT_EQ("No walk has been seen to begin: 1 of 2 configured volumes was being walked already, and the rest was "
              "walked less than 300 seconds ago, or left out by the daemon at its start",
        whyNoWalkBegan(1, 2));
}

} // namespace
