#include "watch/TestClock.h"
#include "watch/WatcherFixture.h"

#include <dlfcn.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <future>
#include <thread>

namespace fs = std::filesystem;

static std::atomic<bool> noMoreWatches = false;
static bool refuseEventfds = false;
static std::function<void()> afterAdd; ///< called when the kernel has a watch that its caller does not know of yet

/// In place of the C library's, in this whole program.
extern "C" int inotify_add_watch(int descriptor, const char* path, uint32_t mask) noexcept
{
    if (noMoreWatches) {
        errno = ENOSPC;
        return -1;
    }
    static const auto real
        = reinterpret_cast<int (*)(int, const char*, uint32_t)>(dlsym(RTLD_NEXT, "inotify_add_watch"));
    const int watch = real(descriptor, path, mask);
    if (afterAdd)
        afterAdd();
    return watch;
}

extern "C" int eventfd(unsigned count, int flags) noexcept
{
    if (refuseEventfds) {
        errno = EMFILE;
        return -1;
    }
    return static_cast<int>(syscall(SYS_eventfd2, count, flags));
}

namespace {

/// The touch of ".tickle", and stops that it cannot wake the thread for.
class Tickle : public WatcherFixture {
protected:
    Tickle()
    {
        setTime(1000000000);
        setQuietTime(std::chrono::milliseconds(0));
    }

    void startAndWait()
    {
        watcher->start();
        ASSERT_TRUE(waitUntilAsked(1));
    }

    void tickle(std::string path) { watcher->tickle(path); }

    /// A stop when the one watch is of a read-only folder, where nothing can be touched, and no more are to be had.
    void stopWithoutMoreWatches(bool withStaleEntry)
    {
        const std::string path = folder.makeFolder("read-only");
        ASSERT_EQ(0, mount("tmpfs", path.c_str(), "tmpfs", MS_RDONLY, nullptr));
        EXPECT_EQ(1, watch(path));
        if (withStaleEntry)
            route(17); // a late event of a watch that is no more
        startAndWait();
        noMoreWatches = true;
        watcher->stop();
        noMoreWatches = false;
        EXPECT_FALSE(watcher->isRunning());
        EXPECT_EQ(0, umount(path.c_str()));
    }

    /// Everything below the folder, one relative path a line.
    std::string tree() const
    {
        std::set<std::string> paths;
        for (const auto& entry : fs::recursive_directory_iterator(folder.path()))
            paths.insert(entry.path().string().substr(folder.path().length()));
        std::string text;
        for (const std::string& path : paths)
            text += path + "\n";
        return text;
    }
};

TEST_F(Tickle, ordinaryPathsKeepThePlainCommand)
{
    const std::string path = folder.makeFolder("Music/A-Z_0.9,+:@%=");
    tickle(path);
    EXPECT_EQ(std::vector<std::string> { "touch " + path + "/.tickle" }, commandsRun());
    EXPECT_TRUE(folder.exists("Music/A-Z_0.9,+:@%=/.tickle"));
}

TEST_F(Tickle, aFileThatIsThereKeepsItsContent)
{
    folder.writeFile("a/.tickle", "old");
    tickle(folder.path("a"));
    EXPECT_EQ("old", folder.readFile("a/.tickle"));
}

TEST_F(Tickle, noNameReachesTheShell)
{
    fs::current_path(folder.path());
    for (const std::string name : { "$(touch pwned) \"'; x", "a b", "`touch pwned`", "x;touch pwned;", "$HOME", "*",
             "'", "line\nbreak", "back\\", "tab\t", "~", "#", "a&touch pwned", "\xff\xfe", "é", "x > pwned" }) {
        folder.makeFolder(name);
        tickle(folder.path(name));
        EXPECT_EQ("/" + name + "\n/" + name + "/.tickle\n", tree());
        folder.remove(name);
    }
    fs::current_path("/");
}

TEST_F(Tickle, stopTouchesAFirstFolderOfAnyName)
{
    const std::string name = "$(touch pwned) \"'; x";
    watchNew(name);
    fs::current_path(folder.path());
    startAndWait();
    watcher->stop();
    EXPECT_EQ("/" + name + "\n/" + name + "/.tickle\n", tree());
    fs::current_path("/");
}

TEST_F(Tickle, stopEndsWithAReadOnlyFirstFolder)
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

TEST_F(Tickle, stopEndsWithAVanishedFirstFolder)
{
    const std::string path = watchNew("gone");
    fs::remove(path); // the kernel ends the watch and says so: a burst
    watcher->start();
    ASSERT_TRUE(waitUntilAsked(4)); // three times in that burst, then at the start of the next, where it waits
    watcher->stop();
    EXPECT_EQ(2, timesLogged(LOG_INFO, "======\n"));
    EXPECT_FALSE(folder.exists("gone"));
}

TEST_F(Tickle, stopEndsWithALinkThatLeadsTheTouchElsewhere)
{
    const std::string path = watchNew("a");
    folder.makeFolder("elsewhere");
    fs::create_symlink(folder.path("elsewhere/target"), path + "/.tickle"); // one event, one burst
    watcher->start();
    ASSERT_TRUE(waitUntilAsked(4)); // as above
    watcher->stop();
    EXPECT_EQ(2, timesLogged(LOG_INFO, "======\n"));
    EXPECT_TRUE(folder.exists("elsewhere/target")) << "the touch went where no watch is";
}

TEST_F(Tickle, stopEndsWhenTheKernelGivesNoMoreWatches) { stopWithoutMoreWatches(false); }

TEST_F(Tickle, stopEndsWhenTheKernelGivesNoMoreWatchesAndAnEntryIsStale) { stopWithoutMoreWatches(true); }

TEST_F(Tickle, stopEndsWhenTheKernelNeverGaveAWatch)
{
    noMoreWatches = true;
    EXPECT_LT(watch(folder.makeFolder("a")), 0);
    startAndWait();
    watcher->stop();
    noMoreWatches = false;
    EXPECT_FALSE(watcher->isRunning());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "======\n"));
}

TEST_F(Tickle, stopEndsWhenEveryEntryIsStaleAndTheKernelGivesNoWatch)
{
    noMoreWatches = true;
    route(17); // late events of watches that are no more
    route(18);
    startAndWait();
    watcher->stop();
    noMoreWatches = false;
    EXPECT_FALSE(watcher->isRunning());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "======\n"));
}

TEST_F(Tickle, stopEndsTheQuietTimeOfABurstAlsoWithAVanishedFirstFolder)
{
    setQuietTime(std::chrono::hours(1));
    std::promise<void> inQuietTime;
    onSelect([&](int before) {
        if (before == 0)
            inQuietTime.set_value();
    });
    fs::remove(watchNew("gone"));
    watcher->start();
    ASSERT_EQ(std::future_status::ready, inQuietTime.get_future().wait_for(std::chrono::seconds(60)));
    watcher->stop();
    EXPECT_EQ(1, timesLogged(LOG_INFO, "======\n"));
}

TEST_F(Tickle, stopEndsWithoutAnEventfdByTheEndOfAWatch)
{
    watcher->stop();
    refuseEventfds = true;
    watcher = std::make_unique<VolumeWatcher>();
    watcher->initialize();
    refuseEventfds = false;
    startAndWait();
    watcher->stop();
    EXPECT_FALSE(watcher->isRunning());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "======\n"));
}

TEST_F(Tickle, stopEndsWithoutMemoryForTheCommand)
{
    watchNew("a");
    startAndWait();
    refuseCommands();
    watcher->stop();
    EXPECT_FALSE(watcher->isRunning());
    EXPECT_FALSE(folder.exists("a/.tickle"));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "======\n"));
}

TEST_F(Tickle, anEventNeverMeetsAFolderThatIsNotInTheRegistryYet)
{
    const std::string path = folder.makeFolder("a");
    startAndWait();
    afterAdd = [&] {
        change(path); // the thread may read it at once, but not look its folder up before the registry knows it
        for (int i = 0; i < 100 && timesLogged(LOG_INFO, "Processed 1 events\n") == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    };
    watch(path);
    afterAdd = nullptr;
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, "======\n"));
    EXPECT_EQ("change " + path + "\n", listener.calls());
    EXPECT_EQ(0, timesLogged(LOG_ERR, "No listener/directory found for \n"));
}

} // namespace
