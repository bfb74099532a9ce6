#include "config/PrivateMount.h"
#include "config/StateFileTest.h"

#include <dlfcn.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <fstream>
#include <mutex>
#include <thread>

extern "C" int fsync(int descriptor);

namespace {

/// Files of the process end after so many bytes, until the end of the scope: what is written comes out partial.
class ShortFiles {
public:
    explicit ShortFiles(rlim_t bytes)
        : formerHandler(std::signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &former);
        const rlimit shorter { bytes, former.rlim_max };
        EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &shorter));
    }
    ~ShortFiles()
    {
        setrlimit(RLIMIT_FSIZE, &former);
        std::signal(SIGXFSZ, formerHandler);
    }
    ShortFiles(const ShortFiles&) = delete;
    ShortFiles& operator=(const ShortFiles&) = delete;

private:
    void (*formerHandler)(int);
    rlimit former {};
};

/// What this program's fsync() does, until the end of the scope.
class Syncs {
public:
    enum Fault { none, fail, stall };
    explicit Syncs(Fault fault) { set(fault); }
    ~Syncs() { set(none); }
    Syncs(const Syncs&) = delete;
    Syncs& operator=(const Syncs&) = delete;

    static int next(int descriptor)
    {
        static const auto system = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
        std::unique_lock<std::mutex> held(mutex);
        ++calls;
        changed.notify_all();
        if (current == fail) {
            errno = EIO;
            return -1;
        }
        changed.wait(held, [] { return current != stall; });
        return system(descriptor);
    }
    static void waitForOne()
    {
        std::unique_lock<std::mutex> held(mutex);
        EXPECT_TRUE(changed.wait_for(held, std::chrono::seconds(60), [] { return calls > 0; }));
    }

private:
    static void set(Fault fault)
    {
        const std::lock_guard<std::mutex> held(mutex);
        current = fault;
        calls = 0;
        changed.notify_all();
    }

    static inline std::mutex mutex;
    static inline std::condition_variable changed;
    static inline Fault current = none;
    static inline int calls = 0;
};

using StateFileFaultsTest = StateFileTest;

TEST_F(StateFileFaultsTest, areToldOnStandardOutputWhenThereIsNoFolderForTheFile)
{
    ::testing::internal::CaptureStdout();
    VolumeManagerConfig config(folder.path("missing/state.xml"));
    EXPECT_EQ("testXmlwriterMemory: Error at fopen\n", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ("0", record(config, 9));
    EXPECT_EQ("", names());
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(StateFileFaultsTest, areToldOnStandardOutputWhenAFolderHasTheFilesName)
{
    folder.makeFolder("state.xml");
    ::testing::internal::CaptureStdout();
    VolumeManagerConfig config(statePath);
    EXPECT_EQ("testXmlwriterMemory: Error at fopen\n", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, config.getLastPurgeTime());
    EXPECT_TRUE(std::filesystem::is_empty(statePath));
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(StateFileFaultsTest, leaveNoPartOfANewFileWhenTheVolumeIsFull)
{
    const std::string volume = folder.makeFolder("volume");
    const PrivateMount mount = PrivateMount::inMemory(volume, "size=8k");
    if (!mount.isMounted())
        GTEST_SKIP() << "mounting is not permitted";
    std::ofstream(volume + "/filler") << std::string(100000, 'x');
    EXPECT_EQ("0", startWith(volume + "/state.xml"));
    EXPECT_FALSE(folder.exists("volume/state.xml"));
    folder.remove("volume/filler");
    EXPECT_EQ("0", startWith(volume + "/state.xml"));
    EXPECT_EQ(stateText("0", "0"), folder.readFile("volume/state.xml"));
}

TEST_F(StateFileFaultsTest, leaveTheGoodFileWhenTheVolumeIsFull)
{
    const std::string volume = folder.makeFolder("volume");
    const PrivateMount mount = PrivateMount::inMemory(volume, "size=8k");
    if (!mount.isMounted())
        GTEST_SKIP() << "mounting is not permitted";
    folder.writeFile("volume/state.xml", stateText("1", "2"));
    VolumeManagerConfig config(volume + "/state.xml");
    std::ofstream(volume + "/filler") << std::string(100000, 'x');
    EXPECT_EQ("9", record(config, 9)); // held in memory all the same
    EXPECT_EQ(stateText("1", "2"), folder.readFile("volume/state.xml"));
    EXPECT_FALSE(folder.exists("volume/state.xml.tmp"));
    EXPECT_TRUE(loggedLines().empty());
    folder.remove("volume/filler");
    EXPECT_EQ("10", record(config, 10));
    EXPECT_EQ("10", startWith(volume + "/state.xml"));
}

TEST_F(StateFileFaultsTest, leaveNoPartOfANewFileThatCouldNotBeWrittenWhole)
{
    ::testing::internal::CaptureStdout();
    {
        const ShortFiles shortFiles(20);
        EXPECT_EQ("0", start());
    }
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout()); // it could be opened
    EXPECT_EQ("", names());
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(StateFileFaultsTest, leaveTheGoodFileWhenTheNewOneCouldNotBeWrittenWhole)
{
    writeState(stateText("1", "2"));
    VolumeManagerConfig config(statePath);
    for (const rlim_t bytes : { 0U, 20U, 150U }) {
        const ShortFiles shortFiles(bytes);
        EXPECT_EQ("9", record(config, 9));
    }
    EXPECT_EQ(stateText("1", "2"), folder.readFile("state.xml"));
    EXPECT_EQ("[state.xml]", names());
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(StateFileFaultsTest, leaveAReadOnlyVolumeInSilence)
{
    const std::string volume = folder.makeFolder("volume");
    const PrivateMount mount = PrivateMount::inMemory(volume, "size=64k");
    if (!mount.isMounted())
        GTEST_SKIP() << "mounting is not permitted";
    folder.writeFile("volume/state.xml", stateText("1", "2"));
    ASSERT_TRUE(mount.makeReadOnly());
    VolumeManagerConfig config(volume + "/state.xml");
    ::testing::internal::CaptureStdout();
    EXPECT_EQ("9", record(config, 9));
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ(stateText("1", "2"), folder.readFile("volume/state.xml"));
    EXPECT_TRUE(loggedLines().empty());
    ::testing::internal::CaptureStdout();
    EXPECT_EQ("0", startWith(volume + "/new.xml"));
    EXPECT_EQ("testXmlwriterMemory: Error at fopen\n", ::testing::internal::GetCapturedStdout());
}

TEST_F(StateFileFaultsTest, doNotKeepAFileFromBeingMadeWithoutTheProcessFileSystem)
{
    const PrivateMount overProc = PrivateMount::inMemory("/proc", "size=4k");
    if (!overProc.isMounted())
        GTEST_SKIP() << "mounting is not permitted";
    ::testing::internal::CaptureStdout();
    EXPECT_EQ("0", start());
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ(stateText("0", "0"), folder.readFile("state.xml"));
    EXPECT_EQ("[state.xml]", names());
}

TEST_F(StateFileFaultsTest, areLoggedWhenTheNewFileCannotTakeItsPlaceAndStays)
{
    writeState(stateText("1", "2"));
    VolumeManagerConfig config(statePath);
    {
        const PrivateMount pin = PrivateMount::pinning(statePath);
        if (!pin.isMounted())
            GTEST_SKIP() << "mounting is not permitted";
        EXPECT_EQ("9", record(config, 9));
        EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "Could not rename the file\n" } }), loggedLines());
        EXPECT_EQ("[state.xml][state.xml.tmp]", names());
        EXPECT_EQ(stateText("1", "2"), folder.readFile("state.xml"));
        EXPECT_EQ("9", startWith(statePath + ".tmp"));
    }
    EXPECT_EQ("10", record(config, 10));
    EXPECT_EQ("[state.xml]", names());
    EXPECT_EQ("10", start());
    EXPECT_EQ(1U, loggedLines().size());
}

TEST_F(StateFileFaultsTest, areNotMadeByALeftOverTemporaryFile)
{
    writeState(stateText("1", "2"));
    folder.writeFile("state.xml.tmp", std::string(100000, 'x'));
    VolumeManagerConfig config(statePath);
    EXPECT_EQ(2, config.getLastPurgeTime());
    EXPECT_EQ(stateText("NOW", "9"), recorded(config, 9));
    EXPECT_EQ("[state.xml]", names());
}

TEST_F(StateFileFaultsTest, areSilentWhenTheTemporaryFileCannotBeOpened)
{
    writeState(stateText("1", "2"));
    folder.makeFolder("state.xml.tmp");
    VolumeManagerConfig config(statePath);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ("9", record(config, 9));
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ(stateText("1", "2"), folder.readFile("state.xml"));
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(StateFileFaultsTest, leaveNoNewFileThatMayNotHaveReachedTheDisk)
{
    {
        const Syncs syncs(Syncs::fail);
        EXPECT_EQ("0", start());
    }
    EXPECT_EQ("", names());
}

TEST_F(StateFileFaultsTest, leaveTheGoodFileWhenTheNewOneMayNotHaveReachedTheDisk)
{
    writeState(stateText("1", "2"));
    VolumeManagerConfig config(statePath);
    {
        const Syncs syncs(Syncs::fail);
        EXPECT_EQ("9", record(config, 9));
    }
    EXPECT_EQ(stateText("1", "2"), folder.readFile("state.xml"));
    EXPECT_EQ("[state.xml]", names());
}

TEST_F(StateFileFaultsTest, ofADiskThatStallsLeaveOtherVolumesAlone)
{
    writeState(stateText("1", "2"));
    VolumeManagerConfig stalled(statePath);
    std::thread waiting;
    {
        const Syncs syncs(Syncs::stall);
        waiting = std::thread([&stalled] { stalled.setLastPurgeTime(9); });
        Syncs::waitForOne();
        VolumeManagerConfig other(folder.writeFile("other.xml", stateText("1", "2"))); // reads, as a purge does
        EXPECT_EQ(2, other.getLastPurgeTime());
    }
    waiting.join();
    EXPECT_EQ("9", start());
}

} // namespace

extern "C" int fsync(int descriptor) { return Syncs::next(descriptor); }
