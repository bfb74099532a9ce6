#include "ctl/status/WalkObservation.h"

#include <gtest/gtest.h>

namespace {

constexpr long long ticks = 100;

std::vector<ThreadFacts> threadsStarted(std::initializer_list<long long> seconds)
{
    std::vector<ThreadFacts> threads;
    for (const long long second : seconds)
        threads.push_back({ static_cast<int>(threads.size()) + 10, 5000 + second * ticks });
    return threads;
}

TEST(WalkObservationTest, threeThreadsWalkNothing)
{
    EXPECT_EQ(0, observeWalks({}, ticks).running);
    EXPECT_EQ(0, observeWalks(threadsStarted({ 0, 0 }), ticks).running);
    EXPECT_EQ(0, observeWalks(threadsStarted({ 0, 0, 1 }), ticks).running);
}

TEST(WalkObservationTest, firstWalksBeginWithTheDaemon)
{
    const WalkObservation walks = observeWalks(threadsStarted({ 0, 0, 0, 1, 2 }), ticks);
    EXPECT_EQ(2, walks.running);
    EXPECT_TRUE(walks.isFirst);
    EXPECT_EQ(5000, walks.startTicks);
}

TEST(WalkObservationTest, laterWalksHaveABeginningOfTheirOwn)
{
    const WalkObservation walks = observeWalks(threadsStarted({ 0, 0, 1, 900, 901 }), ticks);
    EXPECT_EQ(2, walks.running);
    EXPECT_FALSE(walks.isFirst);
    EXPECT_EQ(5000 + 900 * ticks, walks.startTicks);
}

TEST(WalkObservationTest, aFirstWalkCanLastUntilALaterOneOfAnotherVolume)
{
    const WalkObservation walks = observeWalks(threadsStarted({ 0, 0, 0, 1, 900 }), ticks);
    EXPECT_EQ(2, walks.running);
    EXPECT_FALSE(walks.isFirst);
    EXPECT_EQ(5000, walks.startTicks);
}

TEST(WalkProgressTest, theRateTellsTheTimeThatIsLeft)
{
    const auto progress = walkProgress(300, 65536, 1000, 10);
    ASSERT_TRUE(progress);
    EXPECT_EQ(300, progress->done);
    EXPECT_EQ(1000, progress->total);
    EXPECT_DOUBLE_EQ(30, progress->perSecond);
    EXPECT_EQ(23, progress->secondsLeft);
}

TEST(WalkProgressTest, withoutATotalThereIsNoEndInSight)
{
    const auto progress = walkProgress(300, 65536, std::nullopt, 10);
    ASSERT_TRUE(progress);
    EXPECT_DOUBLE_EQ(30, progress->perSecond);
    EXPECT_FALSE(progress->total);
    EXPECT_FALSE(progress->secondsLeft);
}

TEST(WalkProgressTest, nothingIsReckonedFromNothing)
{
    EXPECT_FALSE(walkProgress(0, 65536, 1000, 10)->secondsLeft);
    EXPECT_DOUBLE_EQ(0, walkProgress(5, 65536, 1000, 0)->perSecond);
}

TEST(WalkProgressTest, watchesSayNothingOnceNoneIsAdded)
{
    EXPECT_FALSE(walkProgress(1000, 65536, 1000, 10));
    EXPECT_FALSE(walkProgress(1001, 65536, 1000, 10));
    EXPECT_FALSE(walkProgress(8192, 8192, 10000, 10));
    EXPECT_TRUE(walkProgress(8191, 8192, 10000, 10));
}

} // namespace
