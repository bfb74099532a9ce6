#include "watch/WatcherFixture.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>

namespace fs = std::filesystem;

namespace {

class WatchRegistryTest : public WatcherFixture {
protected:
    /// The masks of the kernel's watches, one line each.
    std::string kernelWatches() const
    {
        std::string masks;
        std::ifstream info("/proc/self/fdinfo/" + std::to_string(descriptor));
        for (std::string word; info >> word;) {
            if (word.compare(0, 5, "mask:") == 0)
                masks += word.substr(5) + "\n";
        }
        return masks;
    }
};

TEST_F(WatchRegistryTest, initializeReturnsAnInotifyDescriptor)
{
    EXPECT_EQ("anon_inode:inotify", fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor)).string());
    EXPECT_EQ(0, watcher->numWatches());
    EXPECT_TRUE(watcher->isRunning());
}

TEST_F(WatchRegistryTest, aWatchHasExactlyTheSixKindsOfEvents)
{
    watchNew("a");
    EXPECT_EQ("3cc\n", kernelWatches()) << "972: attributes, closed after writing, moved from and to, created, deleted";
}

TEST_F(WatchRegistryTest, addReturnsTheDescriptorAndCounts)
{
    EXPECT_EQ(1, watch(folder.makeFolder("a")));
    EXPECT_EQ(2, watch(folder.makeFolder("b")));
    EXPECT_EQ(2, watcher->numWatches());
}

TEST_F(WatchRegistryTest, aFolderAddedTwiceIsOneEntryWithTheLatestPathAndVolume)
{
    const std::string path = folder.makeFolder("a");
    fs::create_directory_symlink(path, folder.path("alias"));
    RecordingListener photos;
    std::string photosName = "photos";
    watcher->addVolumeWatchListener(photosName, &photos);
    const int first = watch(path);
    EXPECT_EQ(first, watch(folder.path("alias"), "photos"));
    EXPECT_EQ(1, watcher->numWatches());
    EXPECT_EQ("3cc\n", kernelWatches());
    route(first);
    EXPECT_EQ("", listener.calls());
    EXPECT_EQ("change " + folder.path("alias") + "\n", photos.calls());
}

TEST_F(WatchRegistryTest, aMovedFolderIsRelabelled)
{
    const std::string before = watchNew("before");
    const std::string after = folder.path("after");
    fs::rename(before, after);
    const int watched = watch(after);
    EXPECT_EQ(1, watched);
    EXPECT_EQ(1, watcher->numWatches());
    EXPECT_EQ(0, unwatch(before)) << "the old path is not known any more";
    EXPECT_EQ(1, watcher->numWatches());
    route(watched);
    EXPECT_EQ("change " + after + "\n", listener.calls());
    EXPECT_EQ(watched, unwatch(after));
    EXPECT_EQ(0, watcher->numWatches());
}

TEST_F(WatchRegistryTest, aFolderThatCannotBeWatchedIsNotRecorded)
{
    EXPECT_LT(watch(folder.path("missing")), 0);
    EXPECT_EQ(0, watcher->numWatches());
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
}

TEST_F(WatchRegistryTest, aFailedAddLeavesTheEntryOfThatPath)
{
    const std::string path = watchNew("a");
    fs::remove(path);
    EXPECT_LT(watch(path, "photos"), 0);
    EXPECT_EQ(1, watcher->numWatches());
    route(1);
    EXPECT_EQ("change " + path + "\n", listener.calls());
}

TEST_F(WatchRegistryTest, removeEndsTheKernelsWatch)
{
    const std::string a = watchNew("a");
    watchNew("b");
    EXPECT_EQ(1, unwatch(a));
    EXPECT_EQ("3cc\n", kernelWatches());
    EXPECT_EQ(1, watcher->numWatches());
}

TEST_F(WatchRegistryTest, removeOfAParentLeavesItsSubfolders)
{
    const std::string parent = watchNew("parent");
    const std::string child = watchNew("parent/child");
    EXPECT_EQ(1, unwatch(parent));
    EXPECT_EQ(1, watcher->numWatches());
    EXPECT_EQ("3cc\n", kernelWatches());
    route(2);
    EXPECT_EQ("change " + child + "\n", listener.calls());
}

TEST_F(WatchRegistryTest, removeWantsTheExactPath)
{
    const std::string path = watchNew("a");
    EXPECT_EQ(0, unwatch(path + "/"));
    EXPECT_EQ(0, unwatch(path.substr(0, path.length() - 1)));
    EXPECT_EQ(1, watcher->numWatches());
}

TEST_F(WatchRegistryTest, removeTakesTheLowestDescriptorOfAPath)
{
    const std::string path = watchNew("a");
    fs::rename(path, folder.path("moved away"));
    watchNew("a");
    EXPECT_EQ(2, watcher->numWatches());
    EXPECT_EQ(1, unwatch(path));
    EXPECT_EQ(2, unwatch(path));
    EXPECT_EQ(0, unwatch(path));
}

TEST_F(WatchRegistryTest, removeIsNotDearerForTheWatchesThatStay)
{
    constexpr int folders = 200;
    const auto watchMany = [this](const std::string& below, int count) {
        for (int number = 0; number < count; ++number)
            watchNew(below + std::to_string(number));
    };
    const auto secondsToRemove = [this](const std::string& below) {
        timespec start;
        timespec end;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
        for (int number = 0; number < folders; ++number)
            EXPECT_LT(0, unwatch(folder.path(below + std::to_string(number))));
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
        return static_cast<double>(end.tv_sec - start.tv_sec) + static_cast<double>(end.tv_nsec - start.tv_nsec) / 1e9;
    };
    watchMany("few", folders);
    const double amongFew = secondsToRemove("few");
    watchMany("stays", 40 * folders);
    watchMany("many", folders);
    EXPECT_LT(secondsToRemove("many"), 10 * amongFew) << "by a look at each watch it takes some eighty times as long";
}

TEST_F(WatchRegistryTest, removeOfAnUnknownPathErasesKeyZero)
{
    watchNew("a");
    route(0);
    EXPECT_EQ(2, watcher->numWatches());
    EXPECT_EQ(0, unwatch("/nowhere"));
    EXPECT_EQ(1, watcher->numWatches());
    EXPECT_EQ("3cc\n", kernelWatches());
}

TEST_F(WatchRegistryTest, anUnknownDescriptorIsLoggedAndCounted)
{
    route(17);
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "No listener/directory found for \n" } }), loggedLines());
    EXPECT_EQ(1, watcher->numWatches());
    route(17);
    EXPECT_EQ(1, watcher->numWatches());
}

TEST_F(WatchRegistryTest, anEventAfterItsWatchWasRemovedIsLoggedWithoutAName)
{
    const std::string path = watchNew("a");
    unwatch(path);
    route(1);
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "No listener/directory found for \n" } }), loggedLines());
    EXPECT_EQ("", listener.calls());
    EXPECT_EQ(1, watcher->numWatches());
}

TEST_F(WatchRegistryTest, aVolumeWithoutListenerKeepsItsWatchesAndItsEventsAreLogged)
{
    watchNew("a");
    watcher->removeVolumeWatchListener(music);
    route(1);
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "No listener/directory found for music\n" } }), loggedLines());
    EXPECT_EQ("", listener.calls());
    EXPECT_EQ(1, watcher->numWatches());
    EXPECT_EQ("3cc\n", kernelWatches());
}

TEST_F(WatchRegistryTest, removingAnAbsentListenerDoesNothing)
{
    watchNew("a");
    std::string nobody = "nobody";
    watcher->removeVolumeWatchListener(nobody);
    route(1);
    EXPECT_EQ("change " + folder.path("a") + "\n", listener.calls());
}

TEST_F(WatchRegistryTest, aSecondListenerOfAVolumeReplacesTheFirst)
{
    RecordingListener second;
    watcher->addVolumeWatchListener(music, &second);
    watchNew("a");
    route(1);
    EXPECT_EQ("", listener.calls());
    EXPECT_EQ("change " + folder.path("a") + "\n", second.calls());
}

TEST_F(WatchRegistryTest, aListenerMayChangeTheRegistryAndItsString)
{
    const std::string path = watchNew("a");
    listener.onChange = [this](std::string& changed) {
        unwatch(changed);
        changed = watchNew("b");
    };
    route(1);
    EXPECT_EQ("change " + path + "\n", listener.calls());
    EXPECT_EQ(0, unwatch(path));
    EXPECT_EQ(2, unwatch(folder.path("b")));
}

TEST_F(WatchRegistryTest, whatAListenerDoesToItsStringDoesNotReachTheRegistry)
{
    const std::string path = watchNew("a");
    listener.onChange = [](std::string& changed) { changed = "/elsewhere"; };
    route(1);
    route(1);
    EXPECT_EQ("change " + path + "\nchange " + path + "\n", listener.calls());
}

TEST_F(WatchRegistryTest, threadsMayChangeItAtTheSameTime)
{
    constexpr int threads = 4;
    std::vector<std::thread> walkers;
    walkers.reserve(threads);
    for (int i = 0; i < threads; ++i) {
        walkers.emplace_back([this, i] {
            const std::string stays = folder.makeFolder("stays" + std::to_string(i));
            const std::string goes = folder.makeFolder("goes" + std::to_string(i));
            for (int round = 0; round < 100; ++round) {
                watch(stays);
                const int watched = watch(goes);
                route(watched);
                watcher->numWatches();
                EXPECT_EQ(watched, unwatch(goes));
            }
        });
    }
    for (std::thread& walker : walkers)
        walker.join();
    EXPECT_EQ(threads, watcher->numWatches());
    EXPECT_EQ("3cc\n3cc\n3cc\n3cc\n", kernelWatches());
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
}

} // namespace
