#include "watch/BurstReduction.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <map>
#include <new>
#include <vector>

namespace {

/// Bytes in, folders out: watch descriptors 1, 2, 3 stand for /v/a, /v/b, /v/c.
class BurstReductionTest : public ::testing::Test {
protected:
    void add(int watchDescriptor, const std::string& name = "", std::uint32_t nameBytes = 0, std::uint32_t mask = 0)
    {
        inotify_event record = {};
        record.wd = watchDescriptor;
        record.mask = mask;
        record.cookie = mask * 3;
        record.len = nameBytes;
        const auto* begin = reinterpret_cast<const char*>(&record);
        bytes.insert(bytes.end(), begin, begin + sizeof record);
        bytes.insert(bytes.end(), name.begin(), name.end());
        bytes.resize(bytes.size() + nameBytes - name.length());
    }

    void reduce()
    {
        const auto pathOf = [this](int watchDescriptor) {
            asked += std::to_string(watchDescriptor) + " ";
            if (watchDescriptor == stopAt)
                stop.make();
            const auto known = paths.find(watchDescriptor);
            return known == paths.end() ? std::string() : known->second;
        };
        reduceBurst(bytes.data(), bytes.size(), pathOf, stop, burst);
    }

    /// The folders that records of these watch descriptors, all in one read, come down to.
    std::string foldersOf(const std::vector<int>& watchDescriptors)
    {
        for (const int watchDescriptor : watchDescriptors)
            add(watchDescriptor);
        const int earlierEvents = burst.eventCount;
        reduce();
        EXPECT_EQ(static_cast<int>(watchDescriptors.size()), burst.eventCount - earlierEvents);
        EXPECT_EQ(static_cast<int>(bytes.size()), burst.position);
        return folders();
    }

    std::string folders() const
    {
        std::string text;
        for (const std::string& path : burst.changedDirs)
            text += "[" + path + "]";
        return text;
    }

    const std::map<int, std::string> paths = { { 1, "/v/a" }, { 2, "/v/b" }, { 3, "/v/c" } };
    std::vector<char> bytes;
    StopRequest stop;
    int stopAt = 0;    ///< asking for this descriptor makes the stop
    std::string asked; ///< the descriptors whose folders were looked up, in order
    Burst burst;
};

TEST_F(BurstReductionTest, oneRecordGivesItsFolder) { EXPECT_EQ("[/v/a]", foldersOf({ 1 })); }

TEST_F(BurstReductionTest, manyRecordsOfOneFolderGiveItOnce)
{
    EXPECT_EQ("[/v/a]", foldersOf({ 1, 1, 1, 1 }));
    EXPECT_EQ("1 ", asked);
}

TEST_F(BurstReductionTest, theFolderOfTheLastRunIsNotAdded)
{
    EXPECT_EQ("[/v/a]", foldersOf({ 1, 1, 2 }));
    EXPECT_EQ("1 1 ", asked) << "the folder that is entered is not even looked up";
}

TEST_F(BurstReductionTest, aThirdFolderAddsTheSecond) { EXPECT_EQ("[/v/a][/v/b]", foldersOf({ 1, 2, 3 })); }

TEST_F(BurstReductionTest, theReturnToTheFirstAddsTheSecond)
{
    EXPECT_EQ("[/v/a][/v/b]", foldersOf({ 1, 2, 1 }));
    EXPECT_EQ("1 1 2 ", asked);
}

TEST_F(BurstReductionTest, theLastRunIsDroppedHoweverLongItIs) { EXPECT_EQ("[/v/b]", foldersOf({ 2, 1, 1, 1, 1, 1 })); }

TEST_F(BurstReductionTest, theFoldersComeOutInByteOrder) { EXPECT_EQ("[/v/a][/v/b][/v/c]", foldersOf({ 3, 2, 1, 2 })); }

TEST_F(BurstReductionTest, whatEarlierReadsFoundStays)
{
    burst.changedDirs = { "/v/b" };
    EXPECT_EQ("[/v/a][/v/b]", foldersOf({ 1, 2 }));
}

TEST_F(BurstReductionTest, everyReadStartsAnew)
{
    EXPECT_EQ("[/v/a]", foldersOf({ 1, 2 }));
    bytes.clear();
    EXPECT_EQ("[/v/a][/v/b]", foldersOf({ 2 })) << "the first record of a read adds its folder";
}

TEST_F(BurstReductionTest, anUnknownDescriptorGivesTheEmptyPath) { EXPECT_EQ("[][/v/a]", foldersOf({ 1, -1, 2 })); }

TEST_F(BurstReductionTest, anUnknownDescriptorAtTheEndIsNotLookedUp)
{
    EXPECT_EQ("[/v/a]", foldersOf({ 1, -1 }));
    EXPECT_EQ("1 1 ", asked);
}

TEST_F(BurstReductionTest, anOverflowAloneGivesTheEmptyPath) { EXPECT_EQ("[]", foldersOf({ -1 })); }

TEST_F(BurstReductionTest, whatHappenedDoesNotMatter)
{
    for (const int mask : { IN_CREATE, IN_DELETE, IN_IGNORED, IN_Q_OVERFLOW, IN_MOVED_FROM | IN_ISDIR })
        add(1, "name", 16, static_cast<std::uint32_t>(mask));
    reduce();
    EXPECT_EQ("[/v/a]", folders());
    EXPECT_EQ(5, burst.eventCount);
}

TEST_F(BurstReductionTest, namesAreSteppedOver)
{
    add(1, "short", 16);
    add(2, std::string(255, 'x'), 256);
    add(3);
    add(1, "a", 16);
    reduce();
    EXPECT_EQ("[/v/a][/v/b][/v/c]", folders());
    EXPECT_EQ(4, burst.eventCount);
    EXPECT_EQ(4 * 16 + 16 + 256 + 16, burst.position);
}

TEST_F(BurstReductionTest, aStopThatIsMadeLeavesTheFirstFolderAndWalksNoRecord)
{
    stop.make();
    add(1);
    add(2);
    add(3);
    reduce();
    EXPECT_EQ("[/v/a]", folders());
    EXPECT_EQ(0, burst.eventCount);
    EXPECT_EQ(0, burst.position);
}

TEST_F(BurstReductionTest, theStopEndsTheWalkOfTheRecords)
{
    stopAt = 2;
    add(1);
    add(2);
    add(3);
    add(1);
    reduce();
    EXPECT_EQ("[/v/a][/v/b]", folders());
    EXPECT_EQ(3, burst.eventCount) << "the record at hand is finished";
    EXPECT_EQ(48, burst.position);
}

TEST_F(BurstReductionTest, aLookUpThatThrowsLeavesTheEventsOfTheReadUncounted)
{
    burst.eventCount = 5;
    burst.position = 77; // of the read before
    add(1);
    add(2);
    add(3);
    const auto pathOf = [this](int watchDescriptor) {
        return watchDescriptor == 2 ? throw std::bad_alloc() : paths.at(watchDescriptor);
    };
    EXPECT_THROW(reduceBurst(bytes.data(), bytes.size(), pathOf, stop, burst), std::bad_alloc);
    EXPECT_EQ("[/v/a]", folders());
    EXPECT_EQ(5, burst.eventCount);
    EXPECT_EQ(0, burst.position);
}

TEST_F(BurstReductionTest, aTruncatedRecordAtTheEndIsNotRead)
{
    add(1);
    add(2);
    add(3);
    bytes.resize(bytes.size() - 1);
    bytes.shrink_to_fit(); // one byte further is a fault under the address sanitizer
    reduce();
    EXPECT_EQ("[/v/a]", folders());
    EXPECT_EQ(2, burst.eventCount);
    EXPECT_EQ(32, burst.position);
}

TEST_F(BurstReductionTest, lessThanOneRecordGivesNothing)
{
    add(1);
    bytes.resize(15);
    bytes.shrink_to_fit();
    reduce();
    EXPECT_EQ("", folders());
    EXPECT_EQ("", asked);
    EXPECT_EQ(0, burst.eventCount);
    EXPECT_EQ(0, burst.position);
}

TEST_F(BurstReductionTest, aNameThatReachesBeyondTheEndEndsTheWalk)
{
    add(1);
    add(2, "", 0xfff0);
    bytes.resize(40);
    bytes.shrink_to_fit();
    reduce();
    EXPECT_EQ("[/v/a]", folders());
    EXPECT_EQ(2, burst.eventCount);
}

TEST_F(BurstReductionTest, recordsNeedNoAlignment)
{
    add(1);
    add(2);
    add(3);
    std::vector<char> shifted(bytes.size() + 1);
    std::copy(bytes.begin(), bytes.end(), shifted.begin() + 1);
    const auto pathOf = [this](int watchDescriptor) { return paths.at(watchDescriptor); };
    reduceBurst(shifted.data() + 1, bytes.size(), pathOf, stop, burst);
    EXPECT_EQ(3, burst.eventCount);
    EXPECT_EQ("[/v/a][/v/b]", folders());
}

} // namespace
