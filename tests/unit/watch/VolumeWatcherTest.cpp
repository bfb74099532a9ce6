#include "core/Threads.h"
#include "core/WakeUps.h"
#include "support/Waiting.h"
#include "watch/KernelCalls.h"
#include "watch/WatcherFixture.h"

#include <fcntl.h>

#include <fstream>
#include <future>

namespace {

/// Starting and stopping. stop() has to end in every case: a test that hangs is a test that failed.
class VolumeWatcherTest : public BurstFixture {
protected:
    /// The kernel's watches of an inotify descriptor, one a line.
    static std::string watchesOf(int inotify)
    {
        std::string watches;
        std::ifstream info("/proc/self/fdinfo/" + std::to_string(inotify));
        for (std::string line; std::getline(info, line);) {
            if (line.compare(0, 8, "inotify ") == 0)
                watches += line + "\n";
        }
        return watches;
    }

    const std::set<std::string> threadsBefore = threadIds();
    /// What a thread logs that is stopped while it waits for events.
    const std::vector<LogLine> stoppedAtRest
        = { { LOG_INFO, "pthread_sigmask returned 0\n" }, { LOG_INFO, "Processed 0 events\n" },
              { LOG_INFO, "Handled 0 events in 0 seconds " }, { LOG_INFO, "======\n" } };
};

TEST_F(VolumeWatcherTest, theThreadBlocksEverySignal)
{
    startAndWait();
    EXPECT_EQ(allSignals(), signalsBlockedByNewThreads(threadsBefore));
}

TEST_F(VolumeWatcherTest, aWatcherIsRunningUntilStop)
{
    EXPECT_TRUE(watcher->isRunning()) << "before start() as well";
    startAndWait();
    EXPECT_TRUE(watcher->isRunning());
    watcher->stop();
    EXPECT_FALSE(watcher->isRunning());
}

TEST_F(VolumeWatcherTest, stopAtRestTouchesTheTickleFileAndHandlesNothing)
{
    const std::string first = watchNew("z");
    const std::string second = watchNew("a");
    startAndWait();
    watcher->stop();
    EXPECT_EQ(std::vector<std::string> { "touch " + first + "/.tickle" }, commandsRun());
    EXPECT_TRUE(folder.exists("z/.tickle")) << "in the folder that was watched first, and left there";
    EXPECT_FALSE(folder.exists("a/.tickle"));
    EXPECT_EQ(stoppedAtRest, loggedLines());
    EXPECT_EQ("", listener.calls());
    EXPECT_TRUE(onlyTheseAreLeft(threadsBefore));
    EXPECT_EQ(1, takeWakeUps());
}

TEST_F(VolumeWatcherTest, stopClosesTheDescriptorAndForgetsEverything)
{
    const std::string path = watchNew("a");
    startAndWait();
    watcher->stop();
    EXPECT_EQ(-1, fcntl(descriptor, F_GETFD));
    EXPECT_EQ(0, watcher->numWatches());
    EXPECT_LT(watch(path), 0);
    EXPECT_EQ(0, watcher->numWatches());
    route(1);
    EXPECT_EQ("", listener.calls());
}

TEST_F(VolumeWatcherTest, stopWithNothingWatchedNeedsNoTickle)
{
    startAndWait();
    watcher->stop();
    EXPECT_EQ(std::vector<std::string>(), commandsRun());
    EXPECT_EQ(stoppedAtRest, loggedLines());
}

TEST_F(VolumeWatcherTest, stopSkipsTheEmptyEntryOfAnUnknownDescriptor)
{
    watchNew("a");
    route(-1);
    clearLog();
    startAndWait();
    watcher->stop();
    EXPECT_EQ(std::vector<std::string> { "touch " + folder.path("a") + "/.tickle" }, commandsRun());
    EXPECT_EQ(stoppedAtRest, loggedLines());
}

TEST_F(VolumeWatcherTest, aSecondStopJoinsAndClosesNothing)
{
    watchNew("a");
    startAndWait();
    watcher->stop();
    const int reused = open("/dev/null", O_RDONLY);
    EXPECT_EQ(descriptor, reused) << "the number is free again";
    watcher->stop();
    EXPECT_EQ(0, fcntl(reused, F_GETFD)) << "and now belongs to somebody else";
    EXPECT_EQ(stoppedAtRest, loggedLines());
    EXPECT_EQ(1U, commandsRun().size());
    close(reused);
}

TEST_F(VolumeWatcherTest, stopBeforeStartEndsTheWatches)
{
    watchNew("a");
    watcher->stop();
    EXPECT_FALSE(watcher->isRunning());
    EXPECT_EQ(0, watcher->numWatches());
    EXPECT_EQ(-1, fcntl(descriptor, F_GETFD));
    EXPECT_EQ(std::vector<std::string>(), commandsRun());
    EXPECT_FALSE(folder.exists("a/.tickle"));
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
}

TEST_F(VolumeWatcherTest, aStoppedWatcherIsNotStartedAgain)
{
    startAndWait();
    watcher->stop();
    watcher->start();
    EXPECT_FALSE(watcher->isRunning());
    EXPECT_TRUE(onlyTheseAreLeft(threadsBefore));
    EXPECT_EQ(stoppedAtRest, loggedLines());
}

TEST_F(VolumeWatcherTest, stopDuringTheHandlingEndsItBeforeTheNextFolder)
{
    const std::string a = watchNew("a");
    const std::string b = watchNew("b");
    for (const std::string& path : { a, b, a })
        change(path);
    std::promise<void> inHandling;
    listener.onChange = [&](std::string&) {
        inHandling.set_value();
        EXPECT_TRUE(waitUntil([this] { return !watcher->isRunning(); }));
    };
    watcher->start();
    ASSERT_EQ(std::future_status::ready, inHandling.get_future().wait_for(std::chrono::seconds(60)));
    watcher->stop();
    EXPECT_EQ("change " + a + "\n", listener.calls());
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "pthread_sigmask returned 0\n" },
                  { LOG_INFO, "Processed 3 events\n" }, { LOG_INFO, "Rate of inotify event 0\n" },
                  { LOG_INFO, "Handled 3 events in 0 seconds " }, { LOG_INFO, "======\n" } }),
        loggedLines());
    EXPECT_EQ(1 + 1, takeWakeUps());
}

TEST_F(VolumeWatcherTest, stopDuringTheQuietTimeEndsTheBurst)
{
    const std::string path = watchNew("a");
    change(path);
    std::promise<void> inQuietTime;
    onSelect([&](int before) {
        EXPECT_EQ(0, before) << "it does not wait for more once it was stopped";
        change(path); // there is more to read, which is read and not walked
        inQuietTime.set_value();
        EXPECT_TRUE(waitUntil([this] { return !watcher->isRunning(); }));
    });
    watcher->start();
    ASSERT_EQ(std::future_status::ready, inQuietTime.get_future().wait_for(std::chrono::seconds(60)));
    watcher->stop();
    EXPECT_EQ("", listener.calls());
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "pthread_sigmask returned 0\n" },
                  { LOG_INFO, "Processed 1 events\n" }, { LOG_INFO, "Rate of inotify event 0\n" },
                  { LOG_INFO, "Handled 1 events in 0 seconds " }, { LOG_INFO, "======\n" } }),
        loggedLines());
    EXPECT_EQ(1, takeWakeUps()) << "no record of the last read was walked";
}

TEST_F(VolumeWatcherTest, aWatcherRunsThroughItsInterface)
{
    Runnable& runnable = *watcher;
    runnable.start();
    EXPECT_TRUE(runnable.isRunning());
    runnable.stop();
    EXPECT_FALSE(runnable.isRunning());
    EXPECT_TRUE(onlyTheseAreLeft(threadsBefore));
}

TEST_F(VolumeWatcherTest, stopEndsTheKernelsWatches)
{
    watchNew("a");
    watchNew("b");
    const int shared = dup(descriptor); // as a child process has it: closing ours does not end the watches
    startAndWait();
    EXPECT_NE("", watchesOf(shared));
    watcher->stop();
    EXPECT_EQ("", watchesOf(shared));
    close(shared);
}

TEST_F(VolumeWatcherTest, stopForgetsVolumesAndListeners)
{
    const std::string path = watchNew("a");
    startAndWait();
    watcher->stop();
    clearLog();
    route(1);
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "No listener/directory found for \n" } }), loggedLines());
    watcher->initialize();
    watch(path);
    clearLog();
    route(1);
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "No listener/directory found for music\n" } }), loggedLines());
    EXPECT_EQ("", listener.calls());
}

TEST_F(VolumeWatcherTest, anEventNeverMeetsAFolderThatIsNotInTheRegistryYet)
{
    const std::string path = folder.makeFolder("a");
    startAndWait();
    onWatchAdded([&] {
        change(path); // the thread may read it at once, but not look its folder up before the registry knows it
        const auto isRead = [] { return timesLogged(LOG_INFO, "Processed 1 events\n") > 0; };
        waitUntil(isRead, std::chrono::milliseconds(5), std::chrono::milliseconds(500)); // or not: both are right
    });
    watch(path);
    onWatchAdded(nullptr);
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, "======\n"));
    EXPECT_EQ("change " + path + "\n", listener.calls());
    EXPECT_EQ(0, timesLogged(LOG_ERR, "No listener/directory found for \n"));
}

} // namespace
