#include "ctl/status/Rewalk.h"

#include <gtest/gtest.h>

namespace {

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

} // namespace
