#include "core/DaemonFixture.h"
#include "core/Threads.h"
#include "core/VolumeContentManager.h"
#include "watch/VolumeWatcher.h"

namespace {

constexpr const char* joined = "The thread join has returned with a return code of 0 \n";
constexpr const char* closed = "sqlite3 handle closed\n";

/// The shut-down. A test that hangs is a test that failed.
class QuarrowStopTest : public DaemonFixture {
protected:
    static void stop() { Quarrow::getInstance()->stop(); }
};

TEST_F(QuarrowStopTest, endsEveryThreadAndClosesEveryCatalogue)
{
    configure(volume("a") + volume("b"));
    const std::set<std::string> before = threadIds();
    start(2);
    stop();
    EXPECT_TRUE(onlyTheseAreLeft(before));
    EXPECT_FALSE(VolumeWatcher::getInstance()->isRunning());
    EXPECT_EQ(0, VolumeWatcher::getInstance()->numWatches());
    EXPECT_FALSE(VolumeContentManager::getInstance()->isRunning());
    EXPECT_EQ(2, timesLogged(LOG_INFO, closed));
    EXPECT_FALSE(folder.exists("a/.quarrow/quarrow.db-wal"));
    EXPECT_FALSE(folder.exists("b/.quarrow/quarrow.db-wal"));
}

TEST_F(QuarrowStopTest, joinsThePurgeThreadBeforeItClosesTheCatalogues)
{
    configure(volume("a") + volume("b"));
    start(2);
    stop();
    std::string order;
    for (const LogLine& line : loggedLines()) {
        if (line.text == joined || line.text == closed)
            order += line.text;
    }
    EXPECT_EQ(std::string(joined) + closed + closed, order);
}

TEST_F(QuarrowStopTest, endsRun)
{
    configure(volume("a"));
    start(1);
    run([] { passFirstRound(); }); // ends with SIGTERM, whose handler stops
    const std::vector<LogLine> log = loggedLines();
    ASSERT_LE(4U, log.size());
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, joined }, { LOG_INFO, closed }, { LOG_INFO, served },
                  { LOG_INFO, tooSoon(aMoment, 0) } }),
        std::vector<LogLine>(log.end() - 4, log.end()))
        << "the loop still says what woke it";
}

TEST_F(QuarrowStopTest, beforeRunLeavesNothingToRun)
{
    configure(volume("a"));
    Quarrow::getInstance()->start(); // the threads may not have got anywhere yet
    stop();
    clearLog();
    Quarrow::getInstance()->run();
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
}

TEST_F(QuarrowStopTest, aSecondOneDoesNothing)
{
    configure(volume("a"));
    start(1);
    stop();
    clearLog();
    stop();
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
}

TEST_F(QuarrowStopTest, beforeStartDoesNothing)
{
    configure(volume("a"));
    stop();
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
    EXPECT_FALSE(folder.exists("a/.quarrow"));
    Quarrow::getInstance()->run();
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
}

TEST_F(QuarrowStopTest, clearsTheStartedFlag)
{
    configure(volumeAt("a", "/dev/null"));
    start();
    stop();
    EXPECT_NO_THROW(start());
}

TEST_F(QuarrowStopTest, leavesTheTickleFileInTheFirstWatchedFolder)
{
    configure(volume("a"));
    start(1);
    stop();
    EXPECT_TRUE(folder.exists("a/m/.tickle"));
    EXPECT_EQ(std::vector<std::string> { "touch " + folder.path("a/m") + "/.tickle" }, commandsRun());
}

TEST_F(QuarrowStopTest, endsAWalkThatSomebodyElseHoldsUp)
{
    configure(volume("a"));
    start(1);
    run([&] {
        passFirstRound();
        const ForeignWriter writer(catalogue("a"));
        clock.advance(300);
        wakeUntilLogged({ LOG_INFO, walking });
        kill(getpid(), SIGTERM);
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, closed)) << "although the catalogue is still locked";
    });
}

TEST_F(QuarrowStopTest, endsAWalkOnTheWatcherThreadThatSomebodyElseHoldsUp)
{
    configure(volume("a"));
    start(1);
    const ForeignWriter writer(catalogue("a"));
    folder.makeFolder("a/m/new");
    ASSERT_TRUE(
        waitUntilLogged(LOG_INFO, "Going to walk " + folder.path("a/m") + " in handleChangeFolder and found is 1\n"));
    stop();
    EXPECT_EQ(1, timesLogged(LOG_INFO, closed)) << "although the catalogue is still locked";
}

TEST_F(QuarrowStopTest, endsAPurgeOfTheLoopThatSomebodyElseHoldsUp)
{
    // Excluded, so that the walk that comes with the purge has nothing to write and does not stand in its way.
    configure("<Volume><Name>a</Name><Root>" + folder.makeFolder("a")
            + "</Root><CrawlPaths><Path>/m</Path></CrawlPaths><ExcludePaths><Path>/m</Path></ExcludePaths></Volume>",
        200);
    start(1);
    VolumeContentManager::getInstance()->stop(); // what is purged now is purged by the loop
    run([&] {
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, tooSoon(aMoment, 0)));
        const ForeignWriter writer(catalogue("a"));
        clock.advance(300);
        wakeUntilLogged({ LOG_INFO, "Purging the DB at " + std::to_string(aMoment + 300) + "\n" });
        kill(getpid(), SIGTERM);
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, closed)) << "although the catalogue is still locked";
    });
}

} // namespace
