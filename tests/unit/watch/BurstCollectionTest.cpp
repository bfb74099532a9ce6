#include "core/WakeUps.h"
#include "watch/TestClock.h"
#include "watch/WatcherFixture.h"

#include <fcntl.h>
#include <sys/resource.h>

namespace {

constexpr time_t aMoment = 1000000000;

/// The reads of a burst. The time stands still and the quiet time is over at once, unless a test says otherwise.
class BurstCollection : public WatcherFixture {
protected:
    BurstCollection()
    {
        setTime(aMoment);
        setQuietTime(std::chrono::milliseconds(0));
    }

    /// Runs the thread until it handled so many bursts; its log without the first line.
    std::vector<LogLine> run(int bursts = 1)
    {
        watcher->start();
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, "======\n", bursts));
        std::vector<LogLine> log = loggedLines();
        log.erase(log.begin());
        return log;
    }

    static std::vector<LogLine> burstLog(const std::vector<int>& eventsOfBursts)
    {
        std::vector<LogLine> log;
        for (const int events : eventsOfBursts) {
            log.push_back({ LOG_INFO, "Processed " + std::to_string(events) + " events\n" });
            if (events > 0)
                log.push_back({ LOG_INFO, "Rate of inotify event 0\n" });
            log.push_back({ LOG_INFO, "Handled " + std::to_string(events) + " events in 0 seconds " });
            log.push_back({ LOG_INFO, "======\n" });
        }
        return log;
    }

    /// Ends the thread that reads from `fed`.
    void stop(const FedDescriptor& fed)
    {
        fed.end();
        watcher->stop();
    }
};

TEST_F(BurstCollection, goesOnWhileEventsCome)
{
    const std::string path = watchNew("a");
    change(path);
    onSelect([this, path](int before) {
        if (before < 3)
            change(path);
    });
    EXPECT_EQ(burstLog({ 4 }), run());
    EXPECT_EQ("change " + path + "\n", listener.calls());
    watcher->stop();
    EXPECT_EQ(1 + 1, takeWakeUps()) << "one for the burst, however many reads it had";
}

TEST_F(BurstCollection, endsAfterFiveQuietSeconds)
{
    setQuietTime(std::chrono::milliseconds(5000));
    setTime(0);
    const std::string path = watchNew("a");
    watcher->start();
    ASSERT_TRUE(waitUntilAsked(1));
    change(path);
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, "======\n"));
    EXPECT_EQ(quietTimeWait(), latestSelect());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Processed 1 events\n"));
    EXPECT_EQ("change " + path + "\n", listener.calls());
}

TEST_F(BurstCollection, isCutAfterMoreThan299Seconds)
{
    watchNew("a");
    const FedDescriptor fed(descriptor);
    for (int packet = 0; packet < 5; ++packet)
        fed.send({ 1 });
    onSelect([](int before) { advanceTime(before == 0 ? 299 : 1); });
    EXPECT_EQ(burstLog({ 2, 3 }), run(2)) << "at 299 seconds it goes on, at 300 it ends with more to be read";
    stop(fed);
}

TEST_F(BurstCollection, endsAfterItsFirstReadWhenThatWaitedForLong)
{
    watchNew("a");
    const FedDescriptor fed(descriptor);
    watcher->start();
    ASSERT_TRUE(waitUntilAsked(1)); // the burst has begun, with the wait for its first read
    advanceTime(300);
    onSelect([&fed](int before) {
        if (before == 0)
            fed.send({ 1, 1 });
    });
    fed.send({ 1 });
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, "======\n", 2));
    std::vector<LogLine> log = loggedLines();
    log.erase(log.begin());
    EXPECT_EQ(burstLog({ 1, 2 }), log);
    stop(fed);
}

TEST_F(BurstCollection, everyReadStartsAnewWithItsFirstFolder)
{
    const std::string a = watchNew("a");
    const std::string b = watchNew("b");
    const FedDescriptor fed(descriptor);
    fed.send({ 1, 2 });
    fed.send({ 2, 1 });
    EXPECT_EQ(burstLog({ 4 }), run());
    EXPECT_EQ("change " + a + "\nchange " + b + "\n", listener.calls());
    stop(fed);
}

TEST_F(BurstCollection, anOverflowShadowsTheBurst)
{
    const std::string a = watchNew("a");
    const FedDescriptor fed(descriptor);
    fed.send({ 1, -1, 1 });
    std::vector<LogLine> expected = burstLog({ 3 });
    expected.insert(expected.begin() + 2,
        { { LOG_ERR, "No listener/directory found for \n" }, { LOG_INFO, "Skipping because " + a + " is in \n" } });
    EXPECT_EQ(expected, run());
    EXPECT_EQ("", listener.calls());
    EXPECT_EQ(1 + 1, watcher->numWatches());
    stop(fed);
}

TEST_F(BurstCollection, anEmptyLastReadWakesNobody)
{
    const std::string path = watchNew("a");
    const FedDescriptor fed(descriptor);
    fed.send({ 1 });
    fed.send({}); // read() returns 0
    EXPECT_EQ(burstLog({ 1 }), run());
    EXPECT_EQ("change " + path + "\n", listener.calls()) << "the folders of the burst are handled all the same";
    stop(fed);
    EXPECT_EQ(1, takeWakeUps()) << "the initial one";
}

TEST_F(BurstCollection, anEmptyReadBeforeTheLastDoesNotMatter)
{
    watchNew("a");
    const FedDescriptor fed(descriptor);
    fed.send({});
    fed.send({ 1 });
    EXPECT_EQ(burstLog({ 1 }), run());
    stop(fed);
    EXPECT_EQ(1 + 1, takeWakeUps());
}

TEST_F(BurstCollection, aBurstWithoutRecordsHandlesNothing)
{
    watchNew("a");
    const FedDescriptor fed(descriptor);
    fed.send({});
    EXPECT_EQ(burstLog({ 0 }), run());
    EXPECT_EQ("", listener.calls());
    EXPECT_EQ(1, watcher->numWatches());
    stop(fed);
    EXPECT_EQ(1, takeWakeUps());
}

TEST_F(BurstCollection, aFailingReadGivesABurstWithoutRecords)
{
    watchNew("a");
    const int unreadable = open(folder.path().c_str(), O_RDONLY | O_DIRECTORY); // always ready, and read() returns -1
    ASSERT_EQ(descriptor, dup2(unreadable, descriptor));
    close(unreadable);
    setSelectResult(0);
    watcher->start();
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, "======\n", 3));
    watcher->stop();
    std::vector<LogLine> log = loggedLines();
    log.resize(9);
    log.erase(log.begin());
    std::vector<LogLine> expected = burstLog({ 0, 0, 0 });
    expected.resize(8);
    EXPECT_EQ(expected, log);
    EXPECT_EQ("", listener.calls());
    EXPECT_EQ(1, takeWakeUps());
}

TEST_F(BurstCollection, theRateIsTheTimeOfAllReadsButTheFirstByEvents)
{
    watchNew("a");
    setClockStep(250900); // each read takes 250.9 ms
    const FedDescriptor fed(descriptor);
    fed.send({ 1 });
    fed.send({ 1, 1 });
    fed.send({ 1 });
    run();
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Processed 4 events\n"));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Rate of inotify event 125\n")) << "2 * 250 / 4";
    stop(fed);
}

TEST_F(BurstCollection, theFirstReadOfEachBurstIsNotTimed)
{
    watchNew("a");
    setClockStep(5000000);
    const FedDescriptor fed(descriptor);
    fed.send({ 1 });
    run();
    fed.send({ 1 });
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, "======\n", 2));
    EXPECT_EQ(2, timesLogged(LOG_INFO, "Rate of inotify event 0\n"));
    stop(fed);
}

TEST_F(BurstCollection, isReadyForReadSaysWhetherEventsWait)
{
    const std::string path = watchNew("a");
    EXPECT_FALSE(watcher->isReadyForRead());
    EXPECT_EQ(quietTimeWait(), latestSelect());
    change(path);
    EXPECT_TRUE(watcher->isReadyForRead());
}

TEST_F(BurstCollection, isReadyForReadWantsExactlyOneReadyDescriptor)
{
    for (const int result : { -1, 0, 2 }) {
        setSelectResult(result);
        EXPECT_FALSE(watcher->isReadyForRead()) << result;
    }
    setSelectResult(1);
    EXPECT_TRUE(watcher->isReadyForRead());
}

TEST_F(BurstCollection, aFailingSelectEndsTheBurst)
{
    watchNew("a");
    const FedDescriptor fed(descriptor);
    fed.send({ 1 });
    fed.send({ 1 });
    setSelectResult(-1);
    EXPECT_EQ(burstLog({ 1, 1 }), run(2));
    stop(fed);
}

TEST_F(BurstCollection, aDescriptorThatSelectCannotTakeIsNeverReady)
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = FD_SETSIZE + 64;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    std::vector<int> others;
    while (others.empty() || others.back() < FD_SETSIZE)
        others.push_back(open("/dev/null", O_RDONLY));
    VolumeWatcher far;
    EXPECT_GE(far.initialize(), FD_SETSIZE);
    std::string path = folder.path();
    far.addDirectoryToWatch(music, path);
    change(path);
    EXPECT_FALSE(far.isReadyForRead());
    EXPECT_EQ("", latestSelect());
    far.stop();
    for (const int other : others)
        close(other);
}

} // namespace
