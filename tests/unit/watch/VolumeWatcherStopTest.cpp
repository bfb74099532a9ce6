#include "watch/KernelCalls.h"
#include "watch/WatcherFixture.h"

#include <sys/mount.h>

#include <filesystem>
#include <future>

namespace fs = std::filesystem;

namespace {

/// Stops that have little to wake the thread with. stop() has to end in every case: a test that hangs is a test that
/// failed.
class VolumeWatcherStopTest : public BurstFixture {
protected:
    void makeWatcherWithoutEventfd()
    {
        watcher->stop();
        refuseEventfds();
        watcher = std::make_unique<VolumeWatcher>();
        watcher->initialize();
        refuseEventfds(false);
    }

    /// A stop while the thread, after the first events of a burst, waits an hour for more.
    void stopInTheQuietTime()
    {
        setQuietTime(std::chrono::hours(1));
        std::promise<void> inQuietTime;
        onSelect([&](int before) {
            if (before == 0)
                inQuietTime.set_value();
        });
        watcher->start();
        ASSERT_EQ(std::future_status::ready, inQuietTime.get_future().wait_for(std::chrono::seconds(60)));
        watcher->stop();
        EXPECT_EQ(1, timesLogged(LOG_INFO, "======\n"));
    }

    /// A stop while the thread waits for events and the kernel gives no watch, from which on it gives them again.
    void stopAtRest()
    {
        startAndWait();
        watcher->stop();
        refuseWatches(false);
        EXPECT_FALSE(watcher->isRunning());
    }

    /// A stop when the one watch is of a read-only folder, where nothing can be touched, and no more are to be had.
    void stopWithoutMoreWatches(bool withStaleEntry)
    {
        const std::string path = folder.makeFolder("read-only");
        ASSERT_EQ(0, mount("tmpfs", path.c_str(), "tmpfs", MS_RDONLY, nullptr));
        EXPECT_EQ(1, watch(path));
        if (withStaleEntry)
            route(17); // a late event of a watch that is no more
        startAndWait();
        refuseWatches();
        watcher->stop();
        refuseWatches(false);
        EXPECT_FALSE(watcher->isRunning());
        EXPECT_EQ(0, umount(path.c_str()));
    }
};

TEST_F(VolumeWatcherStopTest, stopTouchesAFirstFolderOfAnyName)
{
    const std::string name = "$(touch pwned) \"'; x";
    watchNew(name);
    fs::current_path(folder.path());
    startAndWait();
    watcher->stop();
    EXPECT_EQ("/" + name + "\n/" + name + "/.tickle\n", tree());
    fs::current_path("/");
}

TEST_F(VolumeWatcherStopTest, stopEndsWithAReadOnlyFirstFolder)
{
    const std::string path = folder.makeFolder("read-only");
    ASSERT_EQ(0, mount("tmpfs", path.c_str(), "tmpfs", MS_RDONLY, nullptr));
    EXPECT_EQ(1, watch(path));
    startAndWait();
    watcher->stop();
    EXPECT_FALSE(watcher->isRunning());
    EXPECT_FALSE(folder.exists("read-only/.tickle"));
    EXPECT_EQ(0, umount(path.c_str()));
}

TEST_F(VolumeWatcherStopTest, stopEndsWithAVanishedFirstFolder)
{
    const std::string path = watchNew("gone");
    fs::remove(path); // the kernel ends the watch and says so: a burst
    watcher->start();
    ASSERT_TRUE(clock.waitUntilAsked(4)); // three times in that burst, then at the start of the next, where it waits
    watcher->stop();
    EXPECT_EQ(2, timesLogged(LOG_INFO, "======\n"));
    EXPECT_FALSE(folder.exists("gone"));
}

TEST_F(VolumeWatcherStopTest, stopEndsWithALinkThatLeadsTheTouchElsewhere)
{
    const std::string path = watchNew("a");
    folder.makeFolder("elsewhere");
    fs::create_symlink(folder.path("elsewhere/target"), path + "/.tickle"); // one event, one burst
    watcher->start();
    ASSERT_TRUE(clock.waitUntilAsked(4)); // as above
    watcher->stop();
    EXPECT_EQ(2, timesLogged(LOG_INFO, "======\n"));
    EXPECT_TRUE(folder.exists("elsewhere/target")) << "the touch went where no watch is";
}

TEST_F(VolumeWatcherStopTest, stopEndsWhenTheKernelGivesNoMoreWatches) { stopWithoutMoreWatches(false); }

TEST_F(VolumeWatcherStopTest, stopEndsWhenTheKernelGivesNoMoreWatchesAndAnEntryIsStale)
{
    stopWithoutMoreWatches(true);
}

TEST_F(VolumeWatcherStopTest, stopEndsWhenTheKernelNeverGaveAWatch)
{
    refuseWatches();
    EXPECT_LT(watch(folder.makeFolder("a")), 0);
    stopAtRest();
    EXPECT_EQ(1, timesLogged(LOG_INFO, "======\n"));
}

TEST_F(VolumeWatcherStopTest, stopEndsWhenEveryEntryIsStaleAndTheKernelGivesNoWatch)
{
    refuseWatches();
    route(17); // late events of watches that are no more
    route(18);
    stopAtRest();
    EXPECT_EQ(1, timesLogged(LOG_INFO, "======\n"));
}

TEST_F(VolumeWatcherStopTest, stopEndsTheQuietTimeOfABurstAlsoWithAVanishedFirstFolder)
{
    fs::remove(watchNew("gone"));
    stopInTheQuietTime();
    EXPECT_EQ(0, privateWatchesAsked());
}

TEST_F(VolumeWatcherStopTest, stopEndsTheQuietTimeOfABurstAlsoWithoutAnEventfd)
{
    makeWatcherWithoutEventfd();
    fs::remove(watchNew("gone"));
    stopInTheQuietTime();
    EXPECT_EQ(1, privateWatchesAsked());
}

TEST_F(VolumeWatcherStopTest, stopMakesNoEventWhereAnEventfdWakesTheThread)
{
    startAndWait();
    watcher->stop();
    EXPECT_EQ(0, privateWatchesAsked());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "======\n"));
}

TEST_F(VolumeWatcherStopTest, stopEndsWithoutAnEventfdByTheEndOfAWatch)
{
    makeWatcherWithoutEventfd();
    startAndWait();
    watcher->stop();
    EXPECT_EQ(1, privateWatchesAsked());
    EXPECT_FALSE(watcher->isRunning());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "======\n"));
}

TEST_F(VolumeWatcherStopTest, stopEndsWithoutMemoryForTheCommand)
{
    watchNew("a");
    startAndWait();
    refuseCommands();
    watcher->stop();
    EXPECT_FALSE(watcher->isRunning());
    EXPECT_FALSE(folder.exists("a/.tickle"));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "======\n"));
}

} // namespace
