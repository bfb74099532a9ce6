#include "ctl/changes/CatalogueFacts.h"
#include "ctl/changes/ClockReading.h"
#include "ctl/changes/CursorCheck.h"

#include "../SampleCatalogue.h"
#include "ctl/Catalogue.h"

#include <gtest/gtest.h>

namespace {

constexpr long long threshold = 1000;
constexpr long long newest = 9990;

/// A volume that was read at second 10000. Its newest rows, the files 2 and 3 and the folder 2, were ten seconds old
/// then.
class CursorWitnessTest : public ::testing::Test {
protected:
    CursorWitnessTest()
    {
        addFolder(1, 2000);
        addFolder(2, newest);
        addFile(1, 2000);
        addFile(2, newest);
        addFile(3, newest);
        takePosition();
    }

    void addFolder(int id, long long time) const { add("Folders(folder_id, parent_id", "", id, time); }
    void addFile(int id, long long time) const { add("Files(file_id, folder_id", ", category, size", id, time); }

    /// Reads the volume as it is.
    void takePosition()
    {
        clock.now = 10000;
        clock.boot = since.boot = 1;
        const Catalogue catalogue(sample.path());
        const CatalogueFacts facts = CatalogueFacts::read(catalogue, clock.now);
        since.identity = facts.identity;
        since.lastFolder = facts.lastFolder;
        since.lastFile = facts.lastFile;
        since.floor = since.settled = since.newest = facts.newest;
        since.oldest = facts.oldest;
        since.readAt = clock.now;
        chooseWitness(catalogue, facts, since);
    }

    /// What the next reading says after this change.
    std::string reasonAfter(const std::string& change) const
    {
        sample.run(change);
        const Catalogue catalogue(sample.path());
        const auto reason = whyRestart(since, CatalogueFacts::read(catalogue, clock.now), clock, threshold, catalogue);
        return reason ? reason->code : "";
    }

    SampleCatalogue sample;
    VolumePosition since;
    ClockReading clock;

private:
    void add(const std::string& columns, const std::string& more, int id, long long time) const
    {
        const std::string name = std::to_string(id);
        sample.run("insert into " + columns + ", path, name" + more
            + ", created_time, modified_time, is_deleted, last_updated_time) values (" + name + ", 1, '/" + name
            + "', '" + name + (more.empty() ? "'" : "', 1, 1") + ", 1, 1, 0, " + std::to_string(time) + ")");
    }
};

TEST_F(CursorWitnessTest, aNewestFileIsTheWitness)
{
    EXPECT_EQ('f', since.witnessKind);
    EXPECT_EQ(3, since.witnessId);
    EXPECT_EQ("", reasonAfter(""));
    EXPECT_EQ("", reasonAfter("update Files set is_deleted = 1, last_updated_time = 9995 where file_id = 3"));
}

TEST_F(CursorWitnessTest, aWitnessThatIsGoneWasPurgedOrNeverThere)
{
    EXPECT_EQ("made-anew", reasonAfter("delete from Files where file_id = 3"));
    clock.now = newest + threshold;
    since.readAt = clock.now - 1;
    EXPECT_EQ("made-anew", reasonAfter(""));
    clock.now += 1;
    EXPECT_EQ("", reasonAfter(""));
}

TEST_F(CursorWitnessTest, aWitnessWithAnotherPathIsAnotherRow)
{
    EXPECT_EQ("", reasonAfter("update Files set path = '/else' where file_id = 2"));
    EXPECT_EQ("made-anew", reasonAfter("update Files set path = '/else' where file_id = 3"));
}

TEST_F(CursorWitnessTest, aWitnessThatBecameOlderIsOfAClockThatWasSetBack)
{
    EXPECT_EQ("clock-back", reasonAfter("update Files set last_updated_time = 9989 where file_id = 3"));
    clock.offset = -1000; // set back by a second, which is made up for
    EXPECT_EQ("", reasonAfter(""));
    EXPECT_EQ("clock-back", reasonAfter("update Files set last_updated_time = 9988 where file_id = 3"));
}

TEST_F(CursorWitnessTest, aFolderIsAsGoodAWitness)
{
    sample.run("update Files set last_updated_time = 9000");
    takePosition();
    EXPECT_EQ('d', since.witnessKind);
    EXPECT_EQ(2, since.witnessId);
    EXPECT_EQ("", reasonAfter("update Files set path = '/else', last_updated_time = 9995"));
    EXPECT_EQ("made-anew", reasonAfter("update Folders set path = '/else' where folder_id = 2"));
    sample.run("update Folders set path = '/2', last_updated_time = 9989 where folder_id = 2");
    EXPECT_EQ("clock-back", reasonAfter(""));
}

TEST_F(CursorWitnessTest, withoutAWitnessNobodyIsAsked)
{
    since.witnessKind = '-';
    EXPECT_EQ("", reasonAfter("update Files set path = '/else' where file_id = 3"));
}

TEST_F(CursorWitnessTest, aNewFileThatIsTooOldTellsOfTheClock)
{
    addFile(4, newest);
    EXPECT_EQ("", reasonAfter("update Files set last_updated_time = 9989 where file_id = 2")); // not a new one
    addFile(5, newest - 1);
    EXPECT_EQ("clock-back", reasonAfter(""));
    clock.offset = -1000;
    EXPECT_EQ("", reasonAfter(""));
}

TEST_F(CursorWitnessTest, aNewFolderThatIsTooOldTellsOfTheClock)
{
    addFolder(3, newest);
    EXPECT_EQ("", reasonAfter("update Folders set last_updated_time = 9989 where folder_id = 2")); // not a new one
    addFolder(4, newest - 1);
    EXPECT_EQ("clock-back", reasonAfter(""));
    clock.offset = -1000;
    EXPECT_EQ("", reasonAfter(""));
}

} // namespace
