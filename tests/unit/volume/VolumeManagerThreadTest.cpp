#include "SystemHooks.h"
#include "VolumeTest.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <thread>

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr std::size_t stackBytes = 2097152;
#else
constexpr std::size_t stackBytes = 524288;
#endif

class VolumeManagerThreadTest : public VolumeTest {
protected:
    VolumeManagerThreadTest()
    {
        volume.writeFile("Music/a.mp3");
        initializeQuietly();
        configure({ "/Music" });
    }

    ~VolumeManagerThreadTest() override
    {
        letGo();
        destroy(); // before the members that the walk thread uses
        unlink("/tmp/standby");
    }

    static void goIntoStandby() { ASSERT_TRUE(std::ofstream("/tmp/standby").is_open()); }

    /// Holds the walk thread in its next folder until letGo().
    void stopOnTheWay()
    {
        holding = true;
        hook = std::make_unique<OnReaddir>([this](const std::string&, dirent* entry) {
            std::unique_lock<std::mutex> held(mutex);
            inside = true;
            changed.notify_all();
            changed.wait_for(held, std::chrono::seconds(60), [this] { return !holding; });
            return entry;
        });
    }

    bool isOnTheWay()
    {
        std::unique_lock<std::mutex> held(mutex);
        return changed.wait_for(held, std::chrono::seconds(60), [this] { return inside; });
    }

    /// walkOnce() starts nothing, and the volume is idle after it.
    void expectNoThreadIsStarted()
    {
        int started = 0;
        const OnThreadCreation count([&started](const pthread_attr_t*) { return ++started, 0; });
        manager->walkOnce();
        EXPECT_FALSE(manager->isWalking());
        EXPECT_EQ(0, started);
    }

    void letGo()
    {
        const std::lock_guard<std::mutex> held(mutex);
        holding = false;
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    bool holding = false;
    bool inside = false;
    std::unique_ptr<OnReaddir> hook;
};

TEST_F(VolumeManagerThreadTest, walksAndEnds)
{
    walkOnThread();
    EXPECT_FALSE(manager->isWalking());
    EXPECT_EQ(info("pthread_sigmask returned 0\n"), loggedLines().front());
    EXPECT_EQ(watching(1), loggedLines().back());
    EXPECT_EQ("[/Music/a.mp3] 2 in [/Music]\n", files());
}

TEST_F(VolumeManagerThreadTest, walkOnceReturnsWhileTheWalkGoesOn)
{
    stopOnTheWay();
    manager->walkOnce();
    ASSERT_TRUE(isOnTheWay());
    EXPECT_TRUE(manager->isWalking());
    EXPECT_EQ(0, timesLoggedFrom("Finished walk"));
    letGo();
    EXPECT_TRUE(waitUntil([this] { return !manager->isWalking(); }));
    EXPECT_EQ(1, timesLoggedFrom("Finished walk"));
}

TEST_F(VolumeManagerThreadTest, runsOnTheStackInsideTheManagerZeroedEachTime)
{
    int started = 0;
    bool zeroed = true;
    const OnThreadCreation hookOnce([&](const pthread_attr_t* attributes) {
        void* address = nullptr;
        std::size_t bytes = 0;
        EXPECT_EQ(0, pthread_attr_getstack(attributes, &address, &bytes));
        const auto* stack = static_cast<const unsigned char*>(address);
        const auto* object = reinterpret_cast<const unsigned char*>(manager.get());
        EXPECT_LE(object, stack);
        EXPECT_GE(object + sizeof(VolumeManager), stack + bytes);
        EXPECT_EQ(stackBytes, bytes);
        zeroed = zeroed && std::all_of(stack, stack + bytes, [](unsigned char byte) { return byte == 0; });
        ++started;
        return 0;
    });
    walkOnThread();
    walkOnThread();
    EXPECT_EQ(2, started);
    EXPECT_TRUE(zeroed);
}

TEST_F(VolumeManagerThreadTest, blocksEverySignal)
{
    std::atomic<int> open = -1;
    const OnReaddir look([&](const std::string&, dirent* entry) {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        open = 0;
        for (const int signal : { SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGTERM, SIGCHLD })
            open += sigismember(&mask, signal) == 1 ? 0 : 1;
        return entry;
    });
    walkOnThread();
    EXPECT_EQ(0, open);
}

TEST_F(VolumeManagerThreadTest, threadThatCannotBeMadeLeavesTheVolumeIdleForTheNextTry)
{
    {
        const OnThreadCreation refuse([](const pthread_attr_t*) { return EAGAIN; });
        manager->walkOnce();
    }
    EXPECT_FALSE(manager->isWalking());
    EXPECT_TRUE(loggedLines().empty());
    walkOnThread();
    EXPECT_EQ("[/Music/a.mp3] 2 in [/Music]\n", files());
}

TEST_F(VolumeManagerThreadTest, walkOnceItselfNeverSaysThatItWalks)
{
    SleepyThreads asleep;
    manager->walkOnce();
    EXPECT_FALSE(manager->isWalking());
    manager->destroy();
    EXPECT_FALSE(manager->isWalking());
}

TEST_F(VolumeManagerThreadTest, standbyStartsNothingAndClearsWalking)
{
    stopOnTheWay();
    manager->walkOnce();
    ASSERT_TRUE(isOnTheWay());
    ASSERT_TRUE(manager->isWalking());
    goIntoStandby();
    expectNoThreadIsStarted();
}

TEST_F(VolumeManagerThreadTest, standbyLogsNothing)
{
    goIntoStandby();
    manager->walkOnce();
    EXPECT_TRUE(loggedLines().empty());
    EXPECT_EQ("", folders());
}

TEST_F(VolumeManagerThreadTest, stopStartsNothingAndClearsWalking)
{
    stopOnTheWay();
    manager->walkOnce();
    ASSERT_TRUE(isOnTheWay());
    manager->requestStop();
    EXPECT_TRUE(manager->isWalking());
    expectNoThreadIsStarted();
}

TEST_F(VolumeManagerThreadTest, initializeMakesAStoppedManagerWalkAgain)
{
    manager->destroy();
    ASSERT_TRUE(initialize());
    walkOnThread();
    EXPECT_EQ("[/Music/a.mp3] 2 in [/Music]\n", files());
}

TEST_F(VolumeManagerThreadTest, finishedThreadIsReapedBeforeItsStackIsUsedAgain)
{
    const unsigned char* stack = nullptr;
    std::vector<std::string> events;
    const OnThreadCreation onCreation([&](const pthread_attr_t* attributes) {
        void* address = nullptr;
        std::size_t bytes = 0;
        pthread_attr_getstack(attributes, &address, &bytes);
        stack = static_cast<const unsigned char*>(address);
        events.push_back("made");
        return 0;
    });
    const OnThreadJoin onJoin([&] {
        // The C library's record of the thread is still there.
        const bool zeroed = std::all_of(stack, stack + stackBytes, [](unsigned char byte) { return byte == 0; });
        events.push_back(zeroed ? "joined too late" : "joined");
    });
    walkOnThread();
    walkOnThread();
    manager->destroy();
    EXPECT_EQ((std::vector<std::string> { "made", "joined", "made", "joined" }), events);
}

TEST_F(VolumeManagerThreadTest, walksAsOftenAsItIsTold)
{
    for (int round = 1; round <= 40; ++round) {
        volume.writeFile("Music/" + std::to_string(round) + ".jpg");
        walkOnThread();
    }
    EXPECT_EQ("41\n", query("select count(*) from Files"));
}

TEST_F(VolumeManagerThreadTest, destroyDuringAWalkWaitsForItsEnd)
{
    volume.makeFolder("Music/Rock/Live");
    stopOnTheWay();
    manager->walkOnce();
    ASSERT_TRUE(isOnTheWay());
    manager->requestStop(); // destroy() would, but not before a moment that this test can know
    std::thread destroyer([this] { manager->destroy(); });
    EXPECT_EQ(0, timesLogged(LOG_INFO, "sqlite3 handle closed\n"));
    EXPECT_TRUE(manager->isWalking());
    letGo();
    destroyer.join();
    EXPECT_FALSE(manager->isWalking());
    const std::vector<LogLine> lines = loggedLines();
    EXPECT_EQ(watching(1), *(lines.end() - 2));
    EXPECT_EQ(info("sqlite3 handle closed\n"), lines.back());
}

TEST_F(VolumeManagerThreadTest, destroyAsksForTheStop)
{
    manager->destroy();
    clearLog();
    manager->walkOnce();
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(VolumeManagerThreadTest, destroyWaitsForAThreadThatHasNotBegunYet)
{
    const SleepyThreads asleep; // until somebody joins them
    manager->walkOnce();
    manager->destroy();
    EXPECT_EQ(1, asleep.joined());
    const std::vector<LogLine> lines = loggedLines();
    EXPECT_EQ(info("pthread_sigmask returned 0\n"), lines.front());
    EXPECT_EQ(info("sqlite3 handle closed\n"), lines.back());
}

TEST_F(VolumeManagerThreadTest, destroyRightAfterWalkOnceIsSafe)
{
    manager->destroy();
    for (int round = 0; round < 40; ++round) {
        manager = std::make_unique<VolumeManager>();
        ASSERT_TRUE(initialize());
        manager->walkOnce();
        destroy();
    }
    EXPECT_EQ(41, timesLogged(LOG_INFO, "sqlite3 handle closed\n"));
    EXPECT_EQ("ok\n", query("pragma integrity_check"));
}

TEST_F(VolumeManagerThreadTest, exceptionEndsTheWalkAndNotTheProcess)
{
    const BrokenStatement broken("where parent_id=?");
    walkOnThread();
    EXPECT_EQ((std::vector<LogLine> { info("pthread_sigmask returned 0\n"),
                  err("getFolderListByFolder() failed, handleStatus: 21\n"), gotAnException() }),
        loggedLines());
    EXPECT_FALSE(manager->isWalking());
}

TEST_F(VolumeManagerThreadTest, walksAgainAfterAnException)
{
    {
        const BrokenStatement broken("where parent_id=?");
        walkOnThread();
        EXPECT_EQ(1, timesLogged(LOG_ERR, gotAnException().text));
    }
    walkOnThread();
    EXPECT_EQ(0, timesLoggedFrom("Got an exception"));
    EXPECT_EQ("[/Music/a.mp3] 2 in [/Music]\n", files());
}

} // namespace
