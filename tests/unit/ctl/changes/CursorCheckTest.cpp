#include "ctl/changes/CursorCheck.h"
#include "ctl/changes/CatalogueFacts.h"
#include "ctl/changes/ClockReading.h"

#include <gtest/gtest.h>

namespace {

constexpr long long threshold = 1000;

/// A volume that was read at second 10000, when its newest row was ten seconds old, and is looked at five seconds
/// later.
class CursorCheckTest : public ::testing::Test {
protected:
    CursorCheckTest()
    {
        since.identity = facts.identity = "b1-2";
        facts.hasBirth = true;
        since.lastFolder = facts.lastFolder = 5;
        since.lastFile = facts.lastFile = 50;
        since.floor = since.settled = since.newest = facts.settled = facts.newest = 9990;
        since.oldest = facts.oldest = 2000;
        since.readAt = 10000;
        clock.now = 10005;
        clock.offset = since.clockOffset = 77000;
        clock.boot = since.boot = 1;
    }

    std::string reason() const
    {
        const auto found = whyRestart(since, facts, clock, threshold);
        return found ? found->code : "";
    }
    long long floor() const { return nextFloor(&since, facts, clock); }

    VolumePosition since;
    CatalogueFacts facts;
    ClockReading clock;
};

TEST_F(CursorCheckTest, aCatalogueThatGoesOnNeedsNoRestart)
{
    EXPECT_EQ("", reason());
    facts.newest = facts.settled = 10004;
    facts.lastFile = 60;
    EXPECT_EQ("", reason());
    EXPECT_EQ(10004, floor());
}

TEST_F(CursorCheckTest, anotherFileOrFewerIdsIsACatalogueMadeAnew)
{
    facts.identity = "b1-3";
    EXPECT_EQ("made-anew", reason());
    facts.identity = since.identity;
    facts.lastFile = 49;
    EXPECT_EQ("made-anew", reason());
    facts.lastFile = 50;
    facts.lastFolder = 4;
    EXPECT_EQ("made-anew", reason());
}

TEST_F(CursorCheckTest, withoutATimeOfBirthACatalogueOfNewRowsAloneIsMadeAnew)
{
    facts.hasBirth = false;
    facts.newest = facts.settled = 10004;
    facts.oldest = 9989;
    EXPECT_EQ("", reason());
    facts.oldest = 9990;
    EXPECT_EQ("made-anew", reason());
    since.oldest = 9990; // all rows are of one second
    EXPECT_EQ("", reason());
}

TEST_F(CursorCheckTest, deletionsArePurgedUnseenOnlyWhenNobodyAskedForLong)
{
    clock.now = 9990 + threshold;
    EXPECT_EQ("", reason());
    clock.now += 1;
    EXPECT_EQ("purged", reason());
    since.readAt = clock.now - threshold / 2;
    EXPECT_EQ("", reason());
    since.readAt -= 1;
    EXPECT_EQ("purged", reason());
}

TEST_F(CursorCheckTest, timesThatLieBackTellThatTheClockWasSet)
{
    facts.newest = facts.settled = 9989;
    EXPECT_EQ("clock-back", reason());
    facts.newest = facts.settled = 9990;
    clock.now = 9990;
    EXPECT_EQ("", reason());
    clock.now = 9989;
    EXPECT_EQ("clock-back", reason());
}

TEST_F(CursorCheckTest, theNewestRowMayHaveBeenPurged)
{
    clock.now = 9990 + threshold + 1;
    since.readAt = clock.now - 1;
    facts.newest = facts.settled = 3000;
    EXPECT_EQ("", reason());
}

TEST_F(CursorCheckTest, aSmallStepBackIsReadAgainAndALargeOneTold)
{
    clock.offset -= smallStepBack * 1000;
    clock.now -= smallStepBack;
    EXPECT_EQ(smallStepBack, clock.setBackSince(since));
    EXPECT_EQ("", reason());
    EXPECT_EQ(9990 - smallStepBack, floor());
    clock.offset -= 1;
    EXPECT_EQ("clock-back", reason());
    clock.boot = 2; // of another start of the machine nothing is known
    EXPECT_EQ(0, clock.setBackSince(since));
}

TEST_F(CursorCheckTest, afterAStepBackTheFloorRisesWithARowThatIsCertainlyNewer)
{
    since.floor = 9980; // the clock was set back by ten seconds before
    EXPECT_EQ(9980, floor());
    facts.settled = facts.newest = 9995;
    EXPECT_EQ(9995, floor());
}

/// A transaction that was open at the step has rows of the former clock, and the next one is of the new clock.
TEST_F(CursorCheckTest, afterAStepBackRowsOfTheFormerClockDoNotRaiseTheFloor)
{
    clock.offset -= 3000; // by the former clock it was 10008
    EXPECT_EQ(10008, nextDoubt(&since, clock));
    since.doubtUntil = 10008;
    since.floor = floor();
    EXPECT_EQ(9987, since.floor);
    since.clockOffset = clock.offset;
    since.readAt = clock.now;
    clock.now = 10006;
    facts.settled = facts.newest = 10006; // committed only now, but written before the step
    EXPECT_EQ(9987, floor());
    EXPECT_EQ(10008, nextDoubt(&since, clock));
    clock.now = 10020;
    facts.settled = facts.newest = 10008;
    EXPECT_EQ(9987, floor());
    facts.settled = facts.newest = 10009;
    EXPECT_EQ(10009, floor());
    EXPECT_EQ(noTime, nextDoubt(nullptr, clock));
}

TEST_F(CursorCheckTest, rowsOfTheFutureDoNotRaiseTheFloor)
{
    EXPECT_EQ(clock.now, settlingMoment(nullptr, clock));
    EXPECT_EQ(clock.now, settlingMoment(&since, clock));
    since.newest = facts.newest = 20000;
    EXPECT_EQ(since.readAt, settlingMoment(&since, clock)); // 10002 may be of before the step
    EXPECT_EQ(9990, floor());
    EXPECT_EQ("", reason());
    facts.settled = noTime;
    EXPECT_EQ(clock.now, nextFloor(nullptr, facts, clock));
}

TEST_F(CursorCheckTest, anEmptyCatalogueCanOnlyGrow)
{
    since.floor = since.settled = since.newest = since.oldest = noTime;
    EXPECT_EQ("", reason());
    EXPECT_EQ(9990, floor());
    facts.newest = facts.settled = facts.oldest = noTime;
    EXPECT_EQ("", reason());
    EXPECT_EQ(noTime, floor());
}

} // namespace
