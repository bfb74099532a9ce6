#include "core/WakeUps.h"
#include "watch/WatcherFixture.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

/// Bursts of real events that are all in the kernel's queue before the thread starts: they come in one read, and the
/// quiet time is over at once. The time stands still.
class BurstHandlingTest : public BurstFixture {
protected:
    /// Runs the thread until it handled so many bursts; what was logged.
    std::vector<LogLine> run(int bursts = 1)
    {
        watcher->start();
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, "======\n", bursts));
        return loggedLines();
    }

    /// What run() logs for one burst when handling it logs `handling`.
    static std::vector<LogLine> burstLog(int events, const std::vector<LogLine>& handling = {})
    {
        std::vector<LogLine> log = { { LOG_INFO, "pthread_sigmask returned 0\n" },
            { LOG_INFO, "Processed " + std::to_string(events) + " events\n" },
            { LOG_INFO, "Rate of inotify event 0\n" } };
        log.insert(log.end(), handling.begin(), handling.end());
        log.push_back({ LOG_INFO, "Handled " + std::to_string(events) + " events in 0 seconds " });
        log.push_back({ LOG_INFO, "======\n" });
        return log;
    }
};

TEST_F(BurstHandlingTest, oneNewFileIsOneEventOneCallAndOneWakeUp)
{
    const std::string path = watchNew("a");
    change(path);
    EXPECT_EQ(burstLog(1), run());
    EXPECT_EQ("change " + path + "\n", listener.calls());
    watcher->stop();
    EXPECT_EQ(1 + 1, takeWakeUps()) << "the initial one and the burst's";
}

TEST_F(BurstHandlingTest, aFileThatIsWrittenCountsEveryRecordOfTheKernel)
{
    const std::string path = watchNew("a");
    std::ofstream(path + "/song.mp3") << "music"; // created, closed after writing
    EXPECT_EQ(burstLog(2), run());
    EXPECT_EQ("change " + path + "\n", listener.calls());
}

TEST_F(BurstHandlingTest, whatTheThreadIsToldIsTheFolderNotTheEntry)
{
    const std::string path = watchNew("a");
    folder.makeFolder("a/new folder");
    fs::rename(folder.path("a/new folder"), folder.path("a/renamed"));
    fs::remove(folder.path("a/renamed"));
    EXPECT_EQ(burstLog(4), run()) << "created, moved from, moved to, deleted";
    EXPECT_EQ("change " + path + "\n", listener.calls());
}

TEST_F(BurstHandlingTest, theFolderThatOnlyTheLastEventTellsOfIsDropped)
{
    const std::string a = watchNew("a");
    const std::string b = watchNew("b");
    change(a);
    change(a);
    change(b);
    EXPECT_EQ(burstLog(3), run());
    EXPECT_EQ("change " + a + "\n", listener.calls());
}

TEST_F(BurstHandlingTest, siblingsAreBothHandledInByteOrder)
{
    const std::string b = watchNew("b");
    const std::string a = watchNew("a");
    change(b);
    change(a);
    change(b);
    EXPECT_EQ(burstLog(3), run());
    EXPECT_EQ("change " + a + "\nchange " + b + "\n", listener.calls());
}

TEST_F(BurstHandlingTest, whatContainsTheSmallestPathIsSkipped)
{
    folder.makeFolder("a/b");
    const std::string a = watchNew("a");
    const std::string below = watchNew("a/b");
    const std::string sibling = watchNew("ab");
    const std::string elsewhere = watchNew("z" + a + "/deep"); // contains the path of `a`, but not at its beginning
    const std::string other = watchNew("c");
    for (const std::string& path : { a, below, sibling, elsewhere, other, a })
        change(path);
    EXPECT_EQ(burstLog(6,
                  { { LOG_INFO, "Skipping because " + below + " is in " + a + "\n" },
                      { LOG_INFO, "Skipping because " + sibling + " is in " + a + "\n" },
                      { LOG_INFO, "Skipping because " + elsewhere + " is in " + a + "\n" } }),
        run());
    EXPECT_EQ("change " + a + "\nchange " + other + "\n", listener.calls());
}

TEST_F(BurstHandlingTest, onlyTheSmallestPathShadowsOthers)
{
    folder.makeFolder("b/c");
    const std::string a = watchNew("a");
    const std::string b = watchNew("b");
    const std::string belowB = watchNew("b/c");
    for (const std::string& path : { a, b, belowB, a })
        change(path);
    EXPECT_EQ(burstLog(4), run());
    EXPECT_EQ("change " + a + "\nchange " + b + "\nchange " + belowB + "\n", listener.calls());
}

TEST_F(BurstHandlingTest, aLateEventOfARemovedWatchShadowsTheBurst)
{
    const std::string a = watchNew("a");
    const std::string gone = watchNew("gone");
    change(gone);
    change(a);
    unwatch(gone); // queues the end of the watch as well
    EXPECT_EQ(
        burstLog(3,
            { { LOG_ERR, "No listener/directory found for \n" }, { LOG_INFO, "Skipping because " + a + " is in \n" } }),
        run());
    EXPECT_EQ("", listener.calls());
    EXPECT_EQ(1 + 1, watcher->numWatches()) << "the empty entry counts";
    watcher->stop();
    EXPECT_EQ(1 + 1, takeWakeUps());
}

TEST_F(BurstHandlingTest, anOverflowOfTheKernelsQueueShadowsTheBurst)
{
    const std::string a = watchNew("a");
    int queueLength = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queueLength;
    ASSERT_GT(queueLength, 0);
    std::ofstream(a + "/one").close();
    std::ofstream(a + "/two").close(); // two files in turn: the kernel merges what repeats the latest event
    for (int i = 0; i < queueLength; ++i)
        chmod((a + (i % 2 == 0 ? "/one" : "/two")).c_str(), 0600);
    std::atomic<int> reads = 0;
    onSelect([&reads](int before) { reads = before + 1; });
    run();
    EXPECT_EQ((queueLength + 1) * 32 / 262144 + 1, reads) << "a read takes 262144 bytes";
    // The overflow is the last record, after whole reads of the file's events, or it shares a read with some of them.
    const bool ownRead = queueLength * 32 % 262144 == 0;
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Processed " + std::to_string(queueLength + 1) + " events\n"));
    EXPECT_EQ(ownRead ? 1 : 0, timesLogged(LOG_ERR, "No listener/directory found for \n"));
    EXPECT_EQ(ownRead ? 1 : 0, timesLogged(LOG_INFO, "Skipping because " + a + " is in \n"));
    EXPECT_EQ(ownRead ? "" : "change " + a + "\n", listener.calls());
}

TEST_F(BurstHandlingTest, aFolderGoesToTheLowestWatchWithItsPath)
{
    RecordingListener photos;
    std::string photosName = "photos";
    watcher->addVolumeWatchListener(photosName, &photos);
    const std::string path = watchNew("a", "music");
    fs::rename(path, folder.path("moved away"));
    watchNew("a", "photos"); // another folder under the path that the first watch is still known by
    change(path);
    EXPECT_EQ(burstLog(1), run());
    EXPECT_EQ("change " + path + "\n", listener.calls());
    EXPECT_EQ("", photos.calls());
}

TEST_F(BurstHandlingTest, aFolderThatWasRelabelledMeanwhileIsSilentlyNotHandled)
{
    const std::string a = watchNew("a");
    const std::string b = watchNew("b");
    for (const std::string& path : { a, b, a })
        change(path);
    listener.onChange = [this, b](std::string&) {
        fs::rename(b, b + " moved");
        watch(b + " moved");
    };
    EXPECT_EQ(burstLog(3), run());
    EXPECT_EQ("change " + a + "\n", listener.calls());
}

TEST_F(BurstHandlingTest, theSmallestPathShadowsOthersAlsoWhenItWasRelabelledMeanwhile)
{
    folder.makeFolder("a/b");
    const std::string a = watchNew("a");
    const std::string below = watchNew("a/b");
    for (const std::string& path : { a, below, a })
        change(path);
    onSelect([this, a](int) {
        fs::create_directory_symlink(a, folder.path("alias"));
        watch(folder.path("alias"));
    });
    EXPECT_EQ(burstLog(3, { { LOG_INFO, "Skipping because " + below + " is in " + a + "\n" } }), run());
    EXPECT_EQ("", listener.calls());
}

TEST_F(BurstHandlingTest, eachFolderGoesToTheListenerOfItsVolume)
{
    RecordingListener photos;
    std::string photosName = "photos";
    watcher->addVolumeWatchListener(photosName, &photos);
    const std::string a = watchNew("a", "music");
    const std::string b = watchNew("b", "photos");
    const std::string c = watchNew("c", "films");
    for (const std::string& path : { a, b, c, a })
        change(path);
    EXPECT_EQ(burstLog(4, { { LOG_ERR, "No listener/directory found for films\n" } }), run());
    EXPECT_EQ("change " + a + "\n", listener.calls());
    EXPECT_EQ("change " + b + "\n", photos.calls());
}

TEST_F(BurstHandlingTest, whatAListenerThrowsEndsOnlyItsFolder)
{
    const std::string a = watchNew("a");
    const std::string b = watchNew("b");
    const std::string c = watchNew("c");
    for (const std::string& path : { a, b, c, a })
        change(path);
    listener.onChange = [&](std::string& path) {
        if (path == a)
            throw std::runtime_error("broken catalogue");
        if (path == b)
            throw "broken state file";
    };
    EXPECT_EQ(burstLog(4,
                  { { LOG_ERR, "Got an exception during the walking of volumeManager music\n" },
                      { LOG_ERR, "Got an exception during the walking of volumeManager music\n" } }),
        run());
    EXPECT_EQ("change " + a + "\nchange " + b + "\nchange " + c + "\n", listener.calls());

    listener.onChange = nullptr;
    change(a); // the thread is still there
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, "======\n", 2));
    EXPECT_EQ("change " + a + "\nchange " + b + "\nchange " + c + "\nchange " + a + "\n", listener.calls());
}

TEST_F(BurstHandlingTest, theTimeOfHandlingIsLogged)
{
    change(watchNew("a"));
    onSelect([this](int) { clock.advance(100); }); // collecting is not handling
    listener.onChange = [this](std::string&) { clock.advance(7); };
    run();
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Handled 1 events in 7 seconds "));
}

TEST_F(BurstHandlingTest, eachBurstStartsWithNoFolders)
{
    folder.makeFolder("a/b");
    const std::string a = watchNew("a");
    const std::string b = watchNew("a/b");
    change(a);
    run();
    change(b);
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, "======\n", 2));
    EXPECT_EQ(2, timesLogged(LOG_INFO, "Processed 1 events\n"));
    EXPECT_EQ("change " + a + "\nchange " + b + "\n", listener.calls());
    watcher->stop();
    EXPECT_EQ(1 + 2, takeWakeUps()) << "one for each burst";
}

} // namespace
