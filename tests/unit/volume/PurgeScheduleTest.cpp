#include "SystemHooks.h"
#include "VolumeTest.h"

#include "db/DBOperationException.h"
#include "support/FakeClock.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

constexpr int now = 1700000000;

class PurgeScheduleTest : public VolumeTest {
protected:
    /// The manager of a volume whose state file says that the last purge was then.
    void initializeWithLastPurge(const std::string& seconds)
    {
        volume.writeFile(".quarrow/quarrow-volume.xml",
            "<Quarrow><Version>1.0</Version><Volume><last_updated_time>3</last_updated_time><last_purge_time>" + seconds
                + "</last_purge_time></Volume></Quarrow>");
        initializeQuietly();
    }

    /// What happens at that time: the log as text, "" when nothing is due.
    std::string purgeAt(time_t when, int threshold)
    {
        clock.set(when);
        clearLog();
        manager->purgeIfRequired(threshold);
        std::string log;
        for (const LogLine& line : loggedLines())
            log += (line.priority == LOG_INFO ? "INFO " : "ERR ") + line.text;
        return log;
    }

    static std::string purged(int when)
    {
        const std::string second = std::to_string(when);
        return "INFO Purging the DB at " + second + "\nINFO Done with the purge " + second + "\n";
    }

    std::string stored() const
    {
        const std::string xml = volume.readFile(".quarrow/quarrow-volume.xml");
        const std::string::size_type start = xml.find("<last_updated_time>");
        return xml.substr(start, xml.find("</Volume>") - start);
    }

    static std::string times(const std::string& updated, const std::string& purge)
    {
        return "<last_updated_time>" + updated + "</last_updated_time><last_purge_time>" + purge + "</last_purge_time>";
    }

    ClockAt clock { now };
};

TEST_F(PurgeScheduleTest, firstPurgeIsDueAtOnceAndTheNextOneThresholdLater)
{
    initializeQuietly();
    EXPECT_EQ(purged(now), purgeAt(now, 3600));
    EXPECT_EQ(times("1700000000", "1699996400"), stored());
    EXPECT_EQ("", purgeAt(now + 3599, 3600));
    EXPECT_EQ(times("1700000000", "1699996400"), stored());
    EXPECT_EQ(purged(now + 3600), purgeAt(now + 3600, 3600));
    EXPECT_EQ(times("1700003600", "1700000000"), stored());
}

TEST_F(PurgeScheduleTest, purgeIsDueTwoThresholdsAfterTheStoredTime)
{
    initializeWithLastPurge(std::to_string(now));
    EXPECT_EQ("", purgeAt(now, 3600));
    EXPECT_EQ("", purgeAt(now + 7199, 3600));
    EXPECT_EQ(times("3", "1700000000"), stored());
    EXPECT_EQ(purged(now + 7200), purgeAt(now + 7200, 3600));
    EXPECT_EQ(times("1700007200", "1700003600"), stored());
}

TEST_F(PurgeScheduleTest, sumThatWrapsIn32BitsIsComparedAsSigned)
{
    initializeWithLastPurge("0");
    EXPECT_EQ("", purgeAt(now, 1073741823));          // 2147483646
    EXPECT_EQ(purged(now), purgeAt(now, 1073741824)); // 2147483648 is -2147483648
    EXPECT_EQ(times("1700000000", "626258176"), stored());
}

TEST_F(PurgeScheduleTest, lastPurgeInTheFarFutureWrapsAsWell)
{
    initializeWithLastPurge("2147483647");
    EXPECT_EQ("", purgeAt(now, 0));
    EXPECT_EQ(purged(now), purgeAt(now, 1));
}

TEST_F(PurgeScheduleTest, storedTimeWrapsIn32Bits)
{
    initializeWithLastPurge("0");
    EXPECT_EQ(purged(now), purgeAt(now, -1000000000));
    EXPECT_EQ(times("1700000000", "-1594967296"), stored());
}

TEST_F(PurgeScheduleTest, standbyMeansNoPurge)
{
    initializeWithLastPurge("0");
    ASSERT_EQ(0, mkdir("/tmp/standby", 0755));
    EXPECT_EQ("INFO Volume in standby, ignoring purge", purgeAt(now, 3600)); // no newline
    ASSERT_EQ(0, rmdir("/tmp/standby"));
    EXPECT_EQ(times("3", "0"), stored());
    EXPECT_EQ(purged(now), purgeAt(now, 3600));
}

TEST_F(PurgeScheduleTest, lastLineTellsTheTimeAtItsEnd)
{
    initializeWithLastPurge("0");
    clock.tick();
    manager->purgeIfRequired(3600);
    const std::vector<LogLine> lines = loggedLines();
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ(info("Purging the DB at 1700000000\n"), lines[0]);
    const std::string done = "Done with the purge ";
    ASSERT_EQ(0U, lines[1].text.rfind(done, 0));
    EXPECT_LT(now, std::stoi(lines[1].text.substr(done.length())));
    EXPECT_NE(std::string::npos, stored().find("<last_purge_time>1699996400<")); // of the time at its start
}

TEST_F(PurgeScheduleTest, lockIsHeldUntilTheLastLineAndNotTakenWhenNothingIsDue)
{
    initializeWithLastPurge("0");
    std::vector<std::string> events;
    const auto note = [&events](const std::string& event) {
        const std::vector<LogLine> lines = loggedLines();
        events.push_back(lines.empty() ? event : event + " after " + lines.back().text);
    };
    const OnSemWait onWait([&note](sem_t*) { return note("take"), false; });
    const OnSemPost onPost([&note] { note("free"); });
    purgeAt(now, 3600);
    EXPECT_EQ((std::vector<std::string> { "take", "free after Done with the purge 1700000000\n" }), events);
    events.clear();
    EXPECT_EQ("", purgeAt(now, 3600));
    EXPECT_EQ(std::vector<std::string> {}, events);
}

TEST_F(PurgeScheduleTest, removesRowsThatHaveBeenDeletedLongEnough)
{
    volume.writeFile("Music/a.mp3");
    volume.writeFile("Music/b.mp3");
    volume.writeFile("Music/c.mp3");
    volume.makeFolder("Music/old");
    volume.makeFolder("Music/recent");
    initializeQuietly();
    walk("/Music");
    change("update Files set is_deleted=1, last_updated_time=1699996399 where name='a.mp3';"
           "update Files set is_deleted=1, last_updated_time=1699996400 where name='b.mp3';"
           "update Files set last_updated_time=1 where name='c.mp3';"
           "update Folders set is_deleted=1, last_updated_time=1699996399 where name='old';"
           "update Folders set is_deleted=1, last_updated_time=1699996400 where name='recent';"
           "update Folders set last_updated_time=1 where name='Music';");
    EXPECT_EQ(purged(now), purgeAt(now, 3600));
    EXPECT_EQ("[/Music/b.mp3] 2 in [/Music] deleted\n[/Music/c.mp3] 2 in [/Music]\n", files());
    EXPECT_EQ("[/Music] root\n[/Music/recent] in [/Music] deleted\n", folders());
}

TEST_F(PurgeScheduleTest, mainFileAloneIsCompleteAfterwards)
{
    volume.writeFile("Music/a.mp3");
    initializeQuietly();
    walk("/Music");
    change("update Files set is_deleted=1, last_updated_time=1");
    purgeAt(now, 3600);
    volume.writeFile("copy.db", volume.readFile(".quarrow/quarrow.db"));
    changeCatalogue(volume.path("copy.db"), "pragma journal_mode=delete"); // what may only read needs no log then
    EXPECT_EQ("0\n", queryCatalogue(volume.path("copy.db"), "select count(*) from Files"));
}

TEST_F(PurgeScheduleTest, failedFilePurgePassesOnAndStoresNothing)
{
    initializeWithLastPurge("0");
    const BrokenStatement broken("delete from files");
    EXPECT_THROW(manager->purgeIfRequired(3600), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> {
                  info("Purging the DB at 1700000000\n"), err("purgeDeletedFiles() failed, handleStatus: 21\n") }),
        loggedLines());
    EXPECT_EQ(times("3", "0"), stored());
    EXPECT_THROW(manager->purgeIfRequired(3600), DBOperationException); // the lock is free again
}

TEST_F(PurgeScheduleTest, failedFolderPurgePassesOnAndStoresNothing)
{
    initializeWithLastPurge("0");
    const BrokenStatement broken("delete from folders where is_deleted");
    EXPECT_THROW(manager->purgeIfRequired(3600), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> {
                  info("Purging the DB at 1700000000\n"), err("purgeDeletedFolders() failed, handleStatus: 21\n") }),
        loggedLines());
    EXPECT_EQ(times("3", "0"), stored());
}

TEST_F(PurgeScheduleTest, stateFileThatCannotBeParsedPassesOnAsItsText)
{
    initializeWithLastPurge("0");
    volume.writeFile(".quarrow/quarrow-volume.xml", "no xml");
    for (int round = 0; round < 2; ++round) { // the lock is free again
        clearLog();
        try {
            manager->purgeIfRequired(3600);
            ADD_FAILURE() << "nothing was thrown";
        } catch (const char* text) {
            EXPECT_STREQ("Could not parse the config xml", text);
        }
        EXPECT_EQ(
            (std::vector<LogLine> { info("Purging the DB at 1700000000\n"), err("Could not parse the config xml\n") }),
            loggedLines());
    }
}

TEST_F(PurgeScheduleTest, waitsForTheFolderThatIsBeingWalked)
{
    volume.makeFolder("Music");
    initializeQuietly();
    std::mutex mutex;
    std::condition_variable changed;
    bool inFolder = false;
    bool purgeWaits = false;
    const auto waitFor = [&](const bool& flag) {
        std::unique_lock<std::mutex> held(mutex);
        EXPECT_TRUE(changed.wait_for(held, std::chrono::seconds(60), [&flag] { return flag; }));
    };
    const auto tell = [&](bool& flag) {
        const std::lock_guard<std::mutex> held(mutex);
        flag = true;
        changed.notify_all();
    };
    const std::thread::id purger = std::this_thread::get_id();
    const OnSemWait onWait([&](sem_t*) {
        if (std::this_thread::get_id() == purger)
            tell(purgeWaits);
        return false;
    });
    const OnReaddir onRead([&](const std::string&, dirent* entry) {
        if (entry == nullptr) {
            tell(inFolder);
            waitFor(purgeWaits);
        }
        return entry;
    });
    std::thread walker([this] { walk("/Music"); });
    waitFor(inFolder);
    manager->purgeIfRequired(3600);
    walker.join();
    const std::vector<LogLine> lines = loggedLines();
    ASSERT_EQ(9U, lines.size());
    EXPECT_EQ(summary("/Music", 0, 0, 0, 0), std::vector<LogLine>(lines.begin(), lines.begin() + 3));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Purging the DB at 1700000000\n"));
}

} // namespace
