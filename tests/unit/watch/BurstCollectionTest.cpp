#include "core/WakeUps.h"
#include "watch/WatcherFixture.h"

#include <fcntl.h>
#include <sys/resource.h>

namespace {

/// The reads of a burst. The time stands still and the quiet time is over at once, unless a test says otherwise.
class BurstCollectionTest : public BurstFixture {
protected:
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
};

TEST_F(BurstCollectionTest, aBurstGoesOnWhileEventsCome)
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

TEST_F(BurstCollectionTest, aBurstEndsAfterFiveQuietSeconds)
{
    setQuietTime(std::chrono::milliseconds(5000));
    clock.release();
    const std::string path = watchNew("a");
    watcher->start();
    ASSERT_TRUE(clock.waitUntilAsked(1));
    change(path);
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, "======\n"));
    EXPECT_EQ(quietTimeWait(), latestSelect());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Processed 1 events\n"));
    EXPECT_EQ("change " + path + "\n", listener.calls());
}

TEST_F(BurstCollectionTest, aBurstIsCutAfterMoreThan299Seconds)
{
    watchNew("a");
    const FedDescriptor fed(descriptor);
    for (int packet = 0; packet < 5; ++packet)
        fed.send({ 1 });
    onSelect([this](int before) { clock.advance(before == 0 ? 299 : 1); });
    EXPECT_EQ(burstLog({ 2, 3 }), run(2)) << "at 299 seconds it goes on, at 300 it ends with more to be read";
    watcher->stop();
}

TEST_F(BurstCollectionTest, aBurstEndsAfterItsFirstReadWhenThatWaitedForLong)
{
    watchNew("a");
    const FedDescriptor fed(descriptor);
    watcher->start();
    ASSERT_TRUE(clock.waitUntilAsked(1)); // the burst has begun, with the wait for its first read
    clock.advance(300);
    onSelect([&fed](int before) {
        if (before == 0)
            fed.send({ 1, 1 });
    });
    fed.send({ 1 });
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, "======\n", 2));
    std::vector<LogLine> log = loggedLines();
    log.erase(log.begin());
    EXPECT_EQ(burstLog({ 1, 2 }), log);
    watcher->stop();
}

TEST_F(BurstCollectionTest, everyReadStartsAnewWithItsFirstFolder)
{
    const std::string a = watchNew("a");
    const std::string b = watchNew("b");
    const FedDescriptor fed(descriptor);
    fed.send({ 1, 2 });
    fed.send({ 2, 1 });
    EXPECT_EQ(burstLog({ 4 }), run());
    EXPECT_EQ("change " + a + "\nchange " + b + "\n", listener.calls());
    watcher->stop();
}

TEST_F(BurstCollectionTest, anOverflowShadowsTheBurst)
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
    watcher->stop();
}

TEST_F(BurstCollectionTest, anEmptyLastReadWakesNobody)
{
    const std::string path = watchNew("a");
    const FedDescriptor fed(descriptor);
    fed.send({ 1 });
    fed.send({}); // read() returns 0
    EXPECT_EQ(burstLog({ 1 }), run());
    EXPECT_EQ("change " + path + "\n", listener.calls()) << "the folders of the burst are handled all the same";
    watcher->stop();
    EXPECT_EQ(1, takeWakeUps()) << "the initial one";
}

TEST_F(BurstCollectionTest, anEmptyReadBeforeTheLastDoesNotMatter)
{
    watchNew("a");
    const FedDescriptor fed(descriptor);
    fed.send({});
    fed.send({ 1 });
    EXPECT_EQ(burstLog({ 1 }), run());
    watcher->stop();
    EXPECT_EQ(1 + 1, takeWakeUps());
}

TEST_F(BurstCollectionTest, aBurstWithoutRecordsHandlesNothing)
{
    watchNew("a");
    const FedDescriptor fed(descriptor);
    fed.send({});
    EXPECT_EQ(burstLog({ 0 }), run());
    EXPECT_EQ("", listener.calls());
    EXPECT_EQ(1, watcher->numWatches());
    watcher->stop();
    EXPECT_EQ(1, takeWakeUps());
}

TEST_F(BurstCollectionTest, aFailingReadGivesABurstWithoutRecords)
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

TEST_F(BurstCollectionTest, theRateIsTheTimeOfAllReadsButTheFirstByEvents)
{
    watchNew("a");
    const SlowMachine slow(std::chrono::microseconds(250900)); // each read takes 250.9 ms
    const FedDescriptor fed(descriptor);
    fed.send({ 1 });
    fed.send({ 1, 1 });
    fed.send({ 1 });
    run();
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Processed 4 events\n"));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Rate of inotify event 125\n")) << "2 * 250 / 4";
    watcher->stop();
}

TEST_F(BurstCollectionTest, theFirstReadOfEachBurstIsNotTimed)
{
    watchNew("a");
    const SlowMachine slow(std::chrono::seconds(5));
    const FedDescriptor fed(descriptor);
    fed.send({ 1 });
    run();
    fed.send({ 1 });
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, "======\n", 2));
    EXPECT_EQ(2, timesLogged(LOG_INFO, "Rate of inotify event 0\n"));
    watcher->stop();
}

TEST_F(BurstCollectionTest, aRateBelowNothingIsRoundedUp)
{
    watchNew("a");
    const SlowMachine slow(std::chrono::seconds(-1)); // the clock is set back all the time
    const FedDescriptor fed(descriptor);
    fed.send({ 1 });
    fed.send({ 1 });
    run();
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Rate of inotify event -499\n"))
        << "(-1000 + 0.5) / 2, each cut to a whole number";
    watcher->stop();
}

TEST_F(BurstCollectionTest, isReadyForReadSaysWhetherEventsWait)
{
    const std::string path = watchNew("a");
    EXPECT_FALSE(watcher->isReadyForRead());
    EXPECT_EQ(quietTimeWait(), latestSelect());
    change(path);
    EXPECT_TRUE(watcher->isReadyForRead());
}

TEST_F(BurstCollectionTest, isReadyForReadWantsExactlyOneReadyDescriptor)
{
    for (const int result : { -1, 0, 2 }) {
        setSelectResult(result);
        EXPECT_FALSE(watcher->isReadyForRead()) << result;
    }
    setSelectResult(1);
    EXPECT_TRUE(watcher->isReadyForRead());
}

TEST_F(BurstCollectionTest, isReadyForReadIsFalseOnceTheStopCame)
{
    setSelectResult(1);
    onSelect([this](int) { watcher->stop(); });
    EXPECT_FALSE(watcher->isReadyForRead());
}

TEST_F(BurstCollectionTest, aFailingSelectEndsTheBurst)
{
    watchNew("a");
    const FedDescriptor fed(descriptor);
    fed.send({ 1 });
    fed.send({ 1 });
    setSelectResult(-1);
    EXPECT_EQ(burstLog({ 1, 1 }), run(2));
    watcher->stop();
}

/// Takes every number of a descriptor up to `last`.
class TakenDescriptors {
public:
    explicit TakenDescriptors(int last)
    {
        rlimit limit;
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = FD_SETSIZE + 64;
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        while (taken.empty() || taken.back() < last)
            taken.push_back(open("/dev/null", O_RDONLY));
    }
    ~TakenDescriptors()
    {
        for (const int descriptor : taken)
            close(descriptor);
    }
    TakenDescriptors(const TakenDescriptors&) = delete;
    TakenDescriptors& operator=(const TakenDescriptors&) = delete;

private:
    std::vector<int> taken;
};

TEST_F(BurstCollectionTest, aDescriptorThatSelectCannotTakeIsNeverReady)
{
    const TakenDescriptors others(FD_SETSIZE);
    VolumeWatcher far;
    EXPECT_GE(far.initialize(), FD_SETSIZE);
    std::string path = folder.path();
    far.addDirectoryToWatch(music, path);
    change(path);
    EXPECT_FALSE(far.isReadyForRead());
    EXPECT_EQ("", latestSelect());
    far.stop();
}

TEST_F(BurstCollectionTest, anEventfdThatSelectCannotTakeIsLeftOut)
{
    const TakenDescriptors others(FD_SETSIZE - 2);
    VolumeWatcher far;
    EXPECT_EQ(FD_SETSIZE - 1, far.initialize());
    std::string path = folder.path();
    far.addDirectoryToWatch(music, path);
    change(path);
    EXPECT_TRUE(far.isReadyForRead());
    EXPECT_EQ("1024 [1023] 5s 0us", latestSelect());
    far.stop();
}

} // namespace
