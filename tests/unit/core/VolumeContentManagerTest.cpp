#include "core/VolumeContentManager.h"
#include "config/QuarrowConfig.h"
#include "core/FailingCalls.h"
#include "core/ForeignWriter.h"
#include "core/Threads.h"
#include "core/VolumesFixture.h"
#include "core/WakeUps.h"
#include "support/CatalogueReader.h"
#include "support/SyslogCapture.h"
#include "support/TemporaryFolder.h"
#include "volume/VolumeManager.h"
#include "watch/VolumeWatcher.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <thread>

namespace {

constexpr const char* oneVisit = "Volume in standby, ignoring purge"; ///< what a visit logs while in standby
constexpr const char* purging = "Purging the DB at 1700000000\n";
constexpr const char* purged = "Done with the purge 1700000000\n";

/// The purge thread with real volumes. Their first purge is due at once; in standby a visit only leaves a line.
class VolumeContentManagerTest : public VolumesFixture {
protected:
    VolumeContentManagerTest()
        : manager(*VolumeContentManager::getInstance())
    {
        // Threads share these: as in the daemon they are made before the first thread.
        SignalObject::getInstance();
        QuarrowConfig::getInstance();
        VolumeWatcher::getInstance();
    }
    ~VolumeContentManagerTest() override
    {
        manager.stop();
        leaveStandby();
        for (auto& volume : volumes)
            volume.second->destroy();
    }

    VolumeManager& addVolume(std::string name)
    {
        auto volume = std::make_unique<VolumeManager>();
        std::string path = folder.makeFolder(name);
        EXPECT_TRUE(volume->initialize(name, path));
        manager.addVolumeManager(name, volume.get());
        return *(volumes[name] = std::move(volume));
    }
    static void enterStandby() { std::ofstream("/tmp/standby").close(); }
    static void leaveStandby() { std::remove("/tmp/standby"); }

    VolumeContentManager& manager;
    std::map<std::string, std::unique_ptr<VolumeManager>> volumes;
};

TEST_F(VolumeContentManagerTest, isOneForTheProcess) { EXPECT_EQ(&manager, VolumeContentManager::getInstance()); }

TEST_F(VolumeContentManagerTest, logsItsStartAndItsEnd)
{
    manager.start();
    manager.stop();
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "pthread_sigmask returned 0\n" },
                  { LOG_INFO, "The thread join has returned with a return code of 0 \n" } }),
        loggedLines());
}

TEST_F(VolumeContentManagerTest, blocksEverySignal)
{
    const std::set<std::string> before = threadIds();
    manager.start();
    ASSERT_TRUE(waitUntilLogged(LOG_INFO, "pthread_sigmask returned 0\n"));
    EXPECT_EQ(allSignals(), signalsBlockedByNewThreads(before));
    manager.stop();
    EXPECT_TRUE(onlyTheseAreLeft(before));
}

TEST_F(VolumeContentManagerTest, isRunningUntilStop)
{
    EXPECT_TRUE(manager.isRunning()) << "before start() as well";
    manager.start();
    EXPECT_TRUE(manager.isRunning());
    manager.stop();
    EXPECT_FALSE(manager.isRunning());
}

TEST_F(VolumeContentManagerTest, makesOnePassRightAfterStart)
{
    addVolume("a");
    clearLog();
    manager.start();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, purged));
    manager.stop();
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "pthread_sigmask returned 0\n" }, { LOG_INFO, purging },
                  { LOG_INFO, purged }, { LOG_INFO, "The thread join has returned with a return code of 0 \n" } }),
        loggedLines());
}

TEST_F(VolumeContentManagerTest, purgesWithTheConfiguredThreshold)
{
    addVolume("a");
    changeCatalogue(catalogue("a"),
        "insert into Files values(1, 1, '/old', 'old', 4, 0, 0, 0, 1, 0, 0, 0, " + std::to_string(aMoment - 5184001)
            + "); insert into Files values(2, 1, '/new', 'new', 4, 0, 0, 0, 1, 0, 0, 0, "
            + std::to_string(aMoment - 5183999) + ")");
    manager.start();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, purged));
    EXPECT_EQ("/new\n", queryCatalogue(catalogue("a"), "select path from Files"));
    EXPECT_NE(std::string::npos,
        folder.readFile("a/.quarrow/quarrow-volume.xml")
            .find("<last_purge_time>" + std::to_string(aMoment - 5184000) + "</last_purge_time>"));
}

TEST_F(VolumeContentManagerTest, makesOnePassForEveryNotification)
{
    addVolume("a");
    enterStandby();
    SignalObject::getInstance()->notify();
    SignalObject::getInstance()->notify();
    manager.start();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, oneVisit, 3));
    SignalObject::getInstance()->notify();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, oneVisit, 4));
    manager.stop();
    EXPECT_EQ(4, timesLogged(LOG_INFO, oneVisit));
}

TEST_F(VolumeContentManagerTest, twoNotificationsDuringAPassMakeTwoMorePasses)
{
    addVolume("a");
    ForeignWriter writer(catalogue("a"));
    manager.start();
    ASSERT_TRUE(waitUntilLogged(LOG_INFO, purging)); // and there the pass is held up
    enterStandby();
    SignalObject::getInstance()->notify();
    SignalObject::getInstance()->notify();
    EXPECT_EQ(0, timesLogged(LOG_INFO, oneVisit));
    writer.release();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, oneVisit, 2));
    manager.stop();
    EXPECT_EQ(2, timesLogged(LOG_INFO, oneVisit));
    EXPECT_EQ(1, timesLogged(LOG_INFO, purged));
}

TEST_F(VolumeContentManagerTest, skipsAVolumeThatIsWalking)
{
    VolumeManager& walking = addVolume("a");
    addVolume("b");
    spoilStateFile("b");                  // every pass fails there, and says so
    ForeignWriter writer(catalogue("a")); // holds the walk up
    walking.walkOnce();
    ASSERT_TRUE(waitUntilLogged(LOG_INFO, "Crawl paths is empty so starting at " + folder.path("a") + "\n"));
    manager.start();
    EXPECT_TRUE(waitUntilLogged(LOG_ERR, failure("b"), 1));
    SignalObject::getInstance()->notify();
    EXPECT_TRUE(waitUntilLogged(LOG_ERR, failure("b"), 2));
    EXPECT_TRUE(walking.isWalking());
    writer.release();
    manager.stop();
    EXPECT_EQ(2, timesLogged(LOG_INFO, purging)) << "each pass was for the idle volume alone";
    EXPECT_EQ(0, timesLogged(LOG_ERR, failure("a")));
}

TEST_F(VolumeContentManagerTest, visitsTheVolumesInTheOrderOfTheirNames)
{
    for (const char* name : { "b", "a", "B", "10", "9" }) {
        addVolume(name);
        spoilStateFile(name);
    }
    clearLog();
    manager.start();
    EXPECT_TRUE(waitUntilLogged(LOG_ERR, failure("b")));
    std::vector<LogLine> expected;
    for (const char* name : { "10", "9", "B", "a", "b" }) {
        expected.push_back({ LOG_ERR, "Could not parse the config xml\n" });
        expected.push_back({ LOG_ERR, failure(name) });
    }
    EXPECT_EQ(expected, loggedErrors());
}

TEST_F(VolumeContentManagerTest, aStateFileOfGarbageDoesNotStarveTheOthers)
{
    addVolume("a");
    addVolume("b");
    spoilStateFile("a");
    manager.start();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, purged));
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "Could not parse the config xml\n" }, { LOG_ERR, failure("a") } }),
        loggedErrors());
    SignalObject::getInstance()->notify();
    EXPECT_TRUE(waitUntilLogged(LOG_ERR, failure("a"), 2)) << "it is due for as long as it fails";
    manager.stop();
    EXPECT_EQ(1, timesLogged(LOG_INFO, purged));
}

TEST_F(VolumeContentManagerTest, aBrokenCatalogueDoesNotStarveTheOthers)
{
    addVolume("a");
    addVolume("b");
    changeCatalogue(catalogue("a"), "drop table Files");
    manager.start();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, purged));
    manager.stop();
    EXPECT_EQ(1, timesLogged(LOG_ERR, failure("a")));
    EXPECT_EQ(0, timesLogged(LOG_ERR, failure("b")));
    EXPECT_EQ(1, timesLogged(LOG_INFO, purged));
}

TEST_F(VolumeContentManagerTest, stopEndsAPassAtTheNextVolume)
{
    addVolume("a");
    addVolume("b");
    ForeignWriter writer(catalogue("a"));
    manager.start();
    ASSERT_TRUE(waitUntilLogged(LOG_INFO, purging));
    std::thread releaser([&] {
        EXPECT_TRUE(waitUntil([this] { return !manager.isRunning(); }));
        writer.release();
    });
    manager.stop();
    releaser.join();
    EXPECT_EQ(1, timesLogged(LOG_INFO, purging)) << "the second volume was not visited";
    EXPECT_EQ(1, timesLogged(LOG_INFO, purged));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "The thread join has returned with a return code of 0 \n"));
}

TEST_F(VolumeContentManagerTest, aLaterManagerOfANameReplacesTheEarlier)
{
    addVolume("a");
    VolumeManager& b = addVolume("b");
    std::string a = "a";
    manager.addVolumeManager(a, &b);
    spoilStateFile("a");
    enterStandby();
    manager.start();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, oneVisit, 2));
    leaveStandby();
    SignalObject::getInstance()->notify();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, purged));
    EXPECT_EQ(std::vector<LogLine>(), loggedErrors());
}

TEST_F(VolumeContentManagerTest, aNullManagerIsSkipped)
{
    std::string a = "a";
    manager.addVolumeManager(a, nullptr);
    addVolume("b");
    manager.start();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, purged));
}

TEST_F(VolumeContentManagerTest, aSecondStopJoinsNothing)
{
    manager.start();
    manager.stop();
    clearLog();
    manager.stop();
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
    EXPECT_FALSE(manager.isRunning());
}

TEST_F(VolumeContentManagerTest, stopBeforeStartJoinsNothing)
{
    manager.stop();
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
    EXPECT_FALSE(manager.isRunning());
}

TEST_F(VolumeContentManagerTest, stopNotifiesAndForgetsTheManagers)
{
    addVolume("a");
    enterStandby();
    manager.stop();
    EXPECT_EQ(1 + 1, takeWakeUps());
    manager.start(); // clears the stop flag and starts nothing
    EXPECT_TRUE(manager.isRunning());
    addVolume("b");
    SignalObject::getInstance()->notify();
    manager.start();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, oneVisit));
    manager.stop();
    EXPECT_EQ(1, timesLogged(LOG_INFO, oneVisit)) << "the first volume is not visited any more";
}

TEST_F(VolumeContentManagerTest, startAfterStopOnlyClearsTheStopFlag)
{
    const std::set<std::string> before = threadIds();
    manager.stop();
    manager.start();
    EXPECT_TRUE(manager.isRunning());
    EXPECT_TRUE(onlyTheseAreLeft(before));
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
}

TEST_F(VolumeContentManagerTest, whatAFailedJoinReturnedIsLoggedAndTheManagersAreForgottenAnyway)
{
    addVolume("a");
    enterStandby();
    manager.start();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, oneVisit));
    joinResult = EDEADLK;
    manager.stop();
    joinResult = 0;
    EXPECT_EQ(1, timesLogged(LOG_INFO, "The thread join has returned with a return code of 35 \n"));
    leaveStandby();
    spoilStateFile("a"); // a visit would fail, and say so
    addVolume("b");
    manager.start(); // clears the stop flag and starts nothing
    manager.start();
    SignalObject::getInstance()->notify();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, purged));
    EXPECT_EQ(0, timesLogged(LOG_ERR, failure("a")));
}

TEST_F(VolumeContentManagerTest, runsOnWhenItsSignalsCannotBeBlocked)
{
    addVolume("a");
    maskResult = EINVAL;
    manager.start();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, "pthread_sigmask returned 22\n"));
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, purged));
    manager.stop();
    maskResult = 0;
}

} // namespace
