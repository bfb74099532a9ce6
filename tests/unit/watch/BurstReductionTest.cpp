#include "watch/BurstReduction.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <map>
#include <vector>

namespace {

/// Bytes in, folders out: watch descriptors 1, 2, 3 stand for /v/a, /v/b, /v/c.
class BurstReductionOfBytes : public ::testing::Test {
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
                stopFlag = true;
            const auto known = paths.find(watchDescriptor);
            return known == paths.end() ? std::string() : known->second;
        };
        reduction = reduceBurst(bytes.data(), bytes.size(), pathOf, stopFlag, changedDirs);
    }

    /// The folders that records of these watch descriptors, all in one read, come down to.
    std::string foldersOf(const std::vector<int>& watchDescriptors)
    {
        for (const int watchDescriptor : watchDescriptors)
            add(watchDescriptor);
        reduce();
        EXPECT_EQ(static_cast<int>(watchDescriptors.size()), reduction.events);
        EXPECT_EQ(static_cast<int>(bytes.size()), reduction.position);
        return folders();
    }

    std::string folders() const
    {
        std::string text;
        for (const std::string& path : changedDirs)
            text += "[" + path + "]";
        return text;
    }

    const std::map<int, std::string> paths = { { 1, "/v/a" }, { 2, "/v/b" }, { 3, "/v/c" } };
    std::vector<char> bytes;
    std::atomic<bool> stopFlag = false;
    int stopAt = 0; ///< asking for this descriptor sets the stop flag
    std::set<std::string> changedDirs;
    std::string asked; ///< the descriptors whose folders were looked up, in order
    BurstReduction reduction;
};

TEST_F(BurstReductionOfBytes, oneRecordGivesItsFolder) { EXPECT_EQ("[/v/a]", foldersOf({ 1 })); }

TEST_F(BurstReductionOfBytes, manyRecordsOfOneFolderGiveItOnce)
{
    EXPECT_EQ("[/v/a]", foldersOf({ 1, 1, 1, 1 }));
    EXPECT_EQ("1 ", asked);
}

TEST_F(BurstReductionOfBytes, theFolderOfTheLastRunIsNotAdded)
{
    EXPECT_EQ("[/v/a]", foldersOf({ 1, 1, 2 }));
    EXPECT_EQ("1 1 ", asked) << "the folder that is entered is not even looked up";
}

TEST_F(BurstReductionOfBytes, aThirdFolderAddsTheSecond) { EXPECT_EQ("[/v/a][/v/b]", foldersOf({ 1, 2, 3 })); }

TEST_F(BurstReductionOfBytes, theReturnToTheFirstAddsTheSecond)
{
    EXPECT_EQ("[/v/a][/v/b]", foldersOf({ 1, 2, 1 }));
    EXPECT_EQ("1 1 2 ", asked);
}

TEST_F(BurstReductionOfBytes, theLastRunIsDroppedHoweverLongItIs)
{
    EXPECT_EQ("[/v/b]", foldersOf({ 2, 1, 1, 1, 1, 1 }));
}

TEST_F(BurstReductionOfBytes, theFoldersComeOutInByteOrder)
{
    EXPECT_EQ("[/v/a][/v/b][/v/c]", foldersOf({ 3, 2, 1, 2 }));
}

TEST_F(BurstReductionOfBytes, whatEarlierReadsFoundStays)
{
    changedDirs = { "/v/b" };
    EXPECT_EQ("[/v/a][/v/b]", foldersOf({ 1, 2 }));
}

TEST_F(BurstReductionOfBytes, everyReadStartsAnew)
{
    EXPECT_EQ("[/v/a]", foldersOf({ 1, 2 }));
    bytes.clear();
    EXPECT_EQ("[/v/a][/v/b]", foldersOf({ 2 })) << "the first record of a read adds its folder";
}

TEST_F(BurstReductionOfBytes, anUnknownDescriptorGivesTheEmptyPath) { EXPECT_EQ("[][/v/a]", foldersOf({ 1, -1, 2 })); }

TEST_F(BurstReductionOfBytes, anUnknownDescriptorAtTheEndIsNotLookedUp)
{
    EXPECT_EQ("[/v/a]", foldersOf({ 1, -1 }));
    EXPECT_EQ("1 1 ", asked);
}

TEST_F(BurstReductionOfBytes, anOverflowAloneGivesTheEmptyPath) { EXPECT_EQ("[]", foldersOf({ -1 })); }

TEST_F(BurstReductionOfBytes, whatHappenedDoesNotMatter)
{
    for (const unsigned mask : { IN_CREATE, IN_DELETE, IN_IGNORED, IN_Q_OVERFLOW, IN_MOVED_FROM | IN_ISDIR })
        add(1, "name", 16, mask);
    reduce();
    EXPECT_EQ("[/v/a]", folders());
    EXPECT_EQ(5, reduction.events);
}

TEST_F(BurstReductionOfBytes, namesAreSteppedOver)
{
    add(1, "short", 16);
    add(2, std::string(255, 'x'), 256);
    add(3);
    add(1, "a", 16);
    reduce();
    EXPECT_EQ("[/v/a][/v/b][/v/c]", folders());
    EXPECT_EQ(4, reduction.events);
    EXPECT_EQ(4 * 16 + 16 + 256 + 16, reduction.position);
}

TEST_F(BurstReductionOfBytes, aSetStopFlagLeavesTheFirstFolderAndWalksNoRecord)
{
    stopFlag = true;
    add(1);
    add(2);
    add(3);
    reduce();
    EXPECT_EQ("[/v/a]", folders());
    EXPECT_EQ(0, reduction.events);
    EXPECT_EQ(0, reduction.position);
}

TEST_F(BurstReductionOfBytes, theStopFlagEndsTheWalkOfTheRecords)
{
    stopAt = 2;
    add(1);
    add(2);
    add(3);
    add(1);
    reduce();
    EXPECT_EQ("[/v/a][/v/b]", folders());
    EXPECT_EQ(3, reduction.events) << "the record at hand is finished";
    EXPECT_EQ(48, reduction.position);
}

TEST_F(BurstReductionOfBytes, aTruncatedRecordAtTheEndIsNotRead)
{
    add(1);
    add(2);
    add(3);
    bytes.resize(bytes.size() - 1);
    bytes.shrink_to_fit(); // one byte further is a fault under the address sanitizer
    reduce();
    EXPECT_EQ("[/v/a]", folders());
    EXPECT_EQ(2, reduction.events);
    EXPECT_EQ(32, reduction.position);
}

TEST_F(BurstReductionOfBytes, lessThanOneRecordGivesNothing)
{
    add(1);
    bytes.resize(15);
    bytes.shrink_to_fit();
    reduce();
    EXPECT_EQ("", folders());
    EXPECT_EQ("", asked);
    EXPECT_EQ(0, reduction.events);
    EXPECT_EQ(0, reduction.position);
}

TEST_F(BurstReductionOfBytes, aNameThatReachesBeyondTheEndEndsTheWalk)
{
    add(1);
    add(2, "", 0xfff0);
    bytes.resize(40);
    bytes.shrink_to_fit();
    reduce();
    EXPECT_EQ("[/v/a]", folders());
    EXPECT_EQ(2, reduction.events);
}

TEST_F(BurstReductionOfBytes, recordsNeedNoAlignment)
{
    add(1);
    add(2);
    add(3);
    std::vector<char> shifted(bytes.size() + 1);
    std::copy(bytes.begin(), bytes.end(), shifted.begin() + 1);
    const auto pathOf = [this](int watchDescriptor) { return paths.at(watchDescriptor); };
    EXPECT_EQ(3, reduceBurst(shifted.data() + 1, bytes.size(), pathOf, stopFlag, changedDirs).events);
    EXPECT_EQ("[/v/a][/v/b]", folders());
}

} // namespace
