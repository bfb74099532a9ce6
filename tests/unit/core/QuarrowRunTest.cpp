#include "core/DaemonFixture.h"
#include "core/VolumeContentManager.h"
#include "support/CatalogueReader.h"

namespace {

/// The control loop. Its first round needs no wake-up and is always too soon.
class QuarrowRunTest : public DaemonFixture {
protected:
    /// A purge at the start, if there was one, does not keep the next from being due 300 seconds later.
    static constexpr int threshold = 200;

    /// What is purged afterwards is purged by the loop.
    static void startWithoutPurgeThread(int walks)
    {
        start(walks);
        VolumeContentManager::getInstance()->stop();
    }

    /// Waits until the loop sleeps and no wake-up is left.
    static void settle()
    {
        EXPECT_TRUE(waitUntil([] {
            sigset_t pending;
            sigpending(&pending);
            return sigismember(&pending, SIGUSR1) != 1;
        }));
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, "Going to sleep.\n", timesLogged(LOG_INFO, served)));
    }
    /// A round of the loop that finds a wake-up and logs `rest`.
    static std::vector<LogLine> round(const std::vector<LogLine>& rest)
    {
        std::vector<LogLine> log = { { LOG_INFO, served } };
        log.insert(log.end(), rest.begin(), rest.end());
        log.push_back({ LOG_INFO, "Going to sleep.\n" });
        return log;
    }
    static std::vector<LogLine> join(std::vector<LogLine> first, const std::vector<LogLine>& second)
    {
        first.insert(first.end(), second.begin(), second.end());
        return first;
    }
};

TEST_F(QuarrowRunTest, theFirstRoundNeedsNoWakeUpAndIsTooSoon)
{
    configure(volumeAt("a", "/dev/null"));
    start();
    clearLog();
    std::vector<LogLine> log;
    run([&] {
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, "Going to sleep.\n", 2));
        log = loggedLines();
    });
    EXPECT_EQ(join({ { LOG_INFO, "Going to sleep.\n" } }, round({ { LOG_INFO, tooSoon(aMoment, 0) } })), log)
        << "also without any volume";
}

TEST_F(QuarrowRunTest, aWakeUpBefore300SecondsOnlySaysSo)
{
    configure(volumeAt("a", "/dev/null"));
    start();
    std::vector<LogLine> log;
    run([&] {
        passFirstRound();
        clock.advance(299);
        wake();
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, "Going to sleep.\n"));
        log = loggedLines();
    });
    EXPECT_EQ(round({ { LOG_INFO, tooSoon(aMoment, 299) } }), log);
}

TEST_F(QuarrowRunTest, after300SecondsEveryVolumeIsWalkedAndPurged)
{
    configure(volume("a") + volume("b"), threshold);
    startWithoutPurgeThread(2);
    run([&] {
        passFirstRound();
        clock.advance(300);
        wakeUntilLogged({ LOG_INFO, "Purging the DB at 1700000300\n" }, 2);
        waitForWalks(2);
        EXPECT_EQ(1, timesLogged(LOG_INFO, "Finished walk. Walk started at " + folder.path("a/m") + "\n"));
        EXPECT_EQ(1, timesLogged(LOG_INFO, "Finished walk. Walk started at " + folder.path("b/m") + "\n"));
        wakeUntilLogged({ LOG_INFO, tooSoon(aMoment + 300, 0) }, 1);
    });
    EXPECT_EQ(std::vector<LogLine>(), loggedErrors());
    EXPECT_NE(std::string::npos,
        folder.readFile("a/.quarrow/quarrow-volume.xml").find("<last_purge_time>1700000100</last_purge_time>"))
        << "with the configured threshold";
}

TEST_F(QuarrowRunTest, theNextWalkIsDue300SecondsAfterTheLastStarted)
{
    configure(volume("a"));
    start(1);
    run([&] {
        passFirstRound();
        clock.advance(300 + 41);
        wakeUntilLogged({ LOG_INFO, endOfWalk }, 1);
        wakeUntilLogged({ LOG_INFO, tooSoon(aMoment + 341, 0) }, 1); // the loop has taken the time of the walk
        clock.advance(299);
        wakeUntilLogged({ LOG_INFO, tooSoon(aMoment + 341, 299) }, 1);
        clock.advance(1);
        wakeUntilLogged({ LOG_INFO, endOfWalk }, 2);
    });
}

TEST_F(QuarrowRunTest, everyWakeUpCounts)
{
    configure(volumeAt("a", "/dev/null"));
    start();
    for (int i = 0; i < 3; ++i)
        Quarrow::getInstance()->wakeupThread();
    run([] {
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, "Going to sleep.\n", 1 + 1 + 3));
        EXPECT_EQ(1 + 3, timesLogged(LOG_INFO, tooSoon(aMoment, 0)));
    });
}

TEST_F(QuarrowRunTest, anInterruptedWaitIsTreatedAsAWakeUp)
{
    configure(volumeAt("a", "/dev/null"));
    handle(SIGUSR1, 0, [](int) {}); // without SA_RESTART
    start();
    std::vector<LogLine> log;
    run([&] {
        passFirstRound();
        clock.advance(42);
        wakeUntilLogged({ LOG_INFO, "Woke up after the sleep at 1700000042.\n" }, 1);
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, "Going to sleep.\n"));
        log = loggedLines();
    });
    ASSERT_LE(3U, log.size());
    log.resize(3);
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "Woke up after the sleep at 1700000042.\n" },
                  { LOG_INFO, tooSoon(aMoment, 42) }, { LOG_INFO, "Going to sleep.\n" } }),
        log);
}

TEST_F(QuarrowRunTest, anInterruptedWaitAfter300SecondsWalks)
{
    configure(volume("a"));
    handle(SIGUSR1, 0, [](int) {});
    start(1);
    run([&] {
        passFirstRound();
        clock.advance(300);
        wakeUntilLogged({ LOG_INFO, endOfWalk }, 1);
        EXPECT_EQ(0, timesLogged(LOG_INFO, served));
    });
}

TEST_F(QuarrowRunTest, aVolumeThatIsWalkingIsSkippedSilently)
{
    configure(volume("a"));
    start(1);
    run([&] {
        passFirstRound();
        {
            ForeignWriter writer(catalogue("a")); // holds the next walk up
            clock.advance(300);
            wakeUntilLogged({ LOG_INFO, walking }, 1);
            wakeUntilLogged({ LOG_INFO, tooSoon(aMoment + 300, 0) }, 1);
            settle();
            clearLog();
            clock.advance(300);
            wake();
            EXPECT_TRUE(waitUntilLogged(LOG_INFO, "Going to sleep.\n", 1));
            wake();
            EXPECT_TRUE(waitUntilLogged(LOG_INFO, "Going to sleep.\n", 2));
            EXPECT_EQ(join(round({}), round({})), loggedLines()) << "not too soon: the last walk's time is the old one";
        }
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, "Finished walk. Walk started at " + folder.path("a/m") + "\n"));
    });
}

TEST_F(QuarrowRunTest, whatOneVolumeThrowsDoesNotKeepTheOthersFromTheirWalk)
{
    configure(volume("a") + volume("b") + volume("c"), threshold);
    startWithoutPurgeThread(3);
    run([&] {
        passFirstRound();
        spoilStateFile("a");
        spoilStateFile("c");
        clock.advance(300);
        wakeUntilLogged({ LOG_ERR, failure("c") }, 1);
        EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "Could not parse the config xml\n" }, { LOG_ERR, failure("a") },
                      { LOG_ERR, "Could not parse the config xml\n" }, { LOG_ERR, failure("c") } }),
            loggedErrors())
            << "in the order of their names";
        EXPECT_EQ(1, timesLogged(LOG_INFO, "Done with the purge 1700000300\n"));
        waitForWalks(3);
        wakeUntilLogged({ LOG_INFO, tooSoon(aMoment + 300, 0) }, 1); // the time of the volume in the middle
    });
}

TEST_F(QuarrowRunTest, aVolumeThatThrewDoesNotCountAsWalked)
{
    configure(volume("a"), threshold);
    startWithoutPurgeThread(1);
    run([&] {
        passFirstRound();
        spoilStateFile("a");
        clock.advance(300);
        wakeUntilLogged({ LOG_ERR, failure("a") }, 2);
    });
    EXPECT_EQ(0, timesLogged(LOG_INFO, tooSoon(aMoment + 300, 0)));
    EXPECT_EQ(0, timesLogged(LOG_INFO, tooSoon(aMoment, 300)));
}

TEST_F(QuarrowRunTest, aBrokenCatalogueEndsNeitherTheLoopNorCountsAsWalked)
{
    configure(volume("a"), threshold);
    startWithoutPurgeThread(1);
    run([&] {
        passFirstRound();
        changeCatalogue(catalogue("a"), "drop table Files");
        clock.advance(300);
        wakeUntilLogged({ LOG_INFO, "Purging the DB at 1700000300\n" }, 2);
        EXPECT_EQ(0, timesLogged(LOG_INFO, "Done with the purge 1700000300\n"));
        EXPECT_EQ(0, timesLogged(LOG_INFO, tooSoon(aMoment + 300, 0)));
        EXPECT_TRUE(waitUntilLogged(LOG_ERR, failure("a"), 2));
    });
}

TEST_F(QuarrowRunTest, theTimeSinceTheLastWalkHas32BitsAndASign)
{
    configure(volumeAt("a", "/dev/null"));
    start();
    run([&] {
        passFirstRound();
        clock.set(aMoment + 2147483648L);
        wake();
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, "Going to sleep.\n"));
        EXPECT_EQ(1, timesLogged(LOG_INFO, tooSoon(aMoment, -2147483647 - 1)));
    });
}

} // namespace
