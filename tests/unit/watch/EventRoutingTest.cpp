#include "watch/EventRecord.h"
#include "watch/WatcherFixture.h"

#include <poll.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <ostream>

namespace fs = std::filesystem;

namespace {

/// A name of blanks, both quotes, what printf() takes for conversions, a newline and bytes that are no UTF-8; as long
/// as the kernel's padding allows without room for a second NUL.
const std::string oddName = " 'it' \"is\" 100%s%d;\n\xff\xc0\x80 .mp3...";

/// Also looks around while it is called.
class Onlooker : public RecordingListener {
public:
    std::function<void()> look;

    void handleDeleteFolder(std::string& dir, const char* name) override
    {
        RecordingListener::handleDeleteFolder(dir, name);
        lookAround();
    }
    void handleMoveFolder(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName) override
    {
        RecordingListener::handleMoveFolder(fromDir, fromName, toDir, toName);
        lookAround();
    }

private:
    void lookAround() const
    {
        if (look)
            look();
    }
};

/// Two volumes with a listener each: "music" with the folder a, "photos" with the folder p.
class EventRoutingTest : public WatcherFixture {
protected:
    EventRoutingTest()
        : a(watchNew("a"))
        , p(watchNew("p", photos))
    {
        watcher->addVolumeWatchListener(photos, &photosListener);
        watcher->addVolumeWatchListener(music, &onlooker);
        clearLog();
    }

    /// What both listeners were called for.
    std::string calls() const
    {
        const std::string others = photosListener.calls();
        return onlooker.calls() + (others.empty() ? "" : "photos: " + others);
    }

    /// The folder that each watch stands for, with its volume's listener, by descriptor: "1 a music\n".
    std::string watches()
    {
        std::string text;
        for (int wd = 1; wd <= 9; ++wd) {
            const std::string::size_type told = onlooker.calls().length();
            const std::string::size_type othersTold = photosListener.calls().length();
            route(wd);
            const std::string path = onlooker.calls().substr(told) + photosListener.calls().substr(othersTold);
            if (!path.empty())
                text += std::to_string(wd) + " " + fs::path(path.substr(0, path.length() - 1)).filename().string()
                    + (onlooker.calls().length() > told ? " music\n" : " photos\n");
        }
        return text;
    }

    /// The events that the kernel has queued by now, each of them as it was read.
    std::vector<inotify_event*> kernelEvents()
    {
        pollfd ready = { descriptor, POLLIN, 0 };
        EXPECT_EQ(1, poll(&ready, 1, 60000));
        const ssize_t length = read(descriptor, buffer, sizeof buffer);
        std::vector<inotify_event*> events;
        for (char* at = buffer; at < buffer + length;) {
            events.push_back(reinterpret_cast<inotify_event*>(at));
            at += sizeof(inotify_event) + events.back()->len;
        }
        return events;
    }

    void moveFile(int fromWd, const std::string& fromName, int toWd, const std::string& toName)
    {
        EventRecord from(fromWd, fromName);
        EventRecord to(toWd, toName);
        watcher->handleMoveFile(from.get(), to.get());
    }
    void moveFolder(int fromWd, const std::string& fromName, int toWd, const std::string& toName)
    {
        EventRecord from(fromWd, fromName);
        EventRecord to(toWd, toName);
        watcher->handleMoveFolder(from.get(), to.get());
    }
    void deleteFolder(int wd, const std::string& name)
    {
        EventRecord event(wd, name);
        watcher->handleDeleteFolder(event.get());
    }

    static LogLine noTarget(const std::string& volume)
    {
        return { LOG_ERR, "No listener/directory found for " + volume + "\n" };
    }
    static LogLine crossing(const std::string& from, const std::string& to)
    {
        return { LOG_ERR, "We are crossing from " + from + " to " + to + ". Ignore for now\n" };
    }

    static constexpr int unknown = 99; ///< no watch has this descriptor
    const std::vector<LogLine> nothing;
    std::string photos = "photos";
    Onlooker onlooker;
    RecordingListener photosListener;
    std::string a; ///< watch 1
    std::string p; ///< watch 2

private:
    alignas(inotify_event) char buffer[4096];
};

// Events of one folder

struct Routine {
    const char* name;
    void (VolumeWatcher::*route)(inotify_event*);
    const char* call;
};

void PrintTo(const Routine& routine, std::ostream* out) { *out << routine.name; }

class OneEventRoutingTest : public EventRoutingTest, public testing::WithParamInterface<Routine> {
protected:
    void route(inotify_event* event) { (*watcher.*GetParam().route)(event); }
    void route(int wd, const std::string& name)
    {
        EventRecord event(wd, name);
        route(event.get());
    }
    std::string call(const std::string& dir, const std::string& name) const
    {
        const std::string text = GetParam().call;
        return text + " " + dir + (text == "change" ? "" : " " + name) + "\n";
    }
};

INSTANTIATE_TEST_SUITE_P(Watcher, OneEventRoutingTest,
    testing::Values(Routine { "changeFolder", &VolumeWatcher::handleChangeFolder, "change" },
        Routine { "newFolder", &VolumeWatcher::handleNewFolder, "new folder" },
        Routine { "newFile", &VolumeWatcher::handleNewFile, "new file" },
        Routine { "modifyFile", &VolumeWatcher::handleModifyFile, "modify file" },
        Routine { "deleteFile", &VolumeWatcher::handleDeleteFile, "delete file" },
        Routine { "deleteFolder", &VolumeWatcher::handleDeleteFolder, "delete folder" }),
    [](const testing::TestParamInfo<Routine>& routine) { return std::string(routine.param.name); });

TEST_P(OneEventRoutingTest, anEventGoesToTheListenerOfItsVolumeAlone)
{
    route(1, "x");
    EXPECT_EQ(call(a, "x"), calls());
    route(2, "y");
    EXPECT_EQ(call(a, "x") + "photos: " + call(p, "y"), calls());
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_EQ(2, watcher->numWatches());
}

TEST_P(OneEventRoutingTest, anEventWithoutAListenerIsLoggedWithTheVolume)
{
    watcher->removeVolumeWatchListener(music);
    route(1, "x");
    EXPECT_EQ(std::vector<LogLine> { noTarget("music") }, loggedLines());
    watcher->addVolumeWatchListener(music, nullptr);
    route(1, "x");
    EXPECT_EQ((std::vector<LogLine> { noTarget("music"), noTarget("music") }), loggedLines());
    EXPECT_EQ("", calls());
    EXPECT_EQ(2, watcher->numWatches());
}

TEST_P(OneEventRoutingTest, anEventOfAnUnknownWatchIsLoggedWithoutAVolumeAndCounted)
{
    for (const int wd : { unknown, -1, unknown })
        route(wd, "x");
    EXPECT_EQ((std::vector<LogLine> { noTarget(""), noTarget(""), noTarget("") }), loggedLines());
    EXPECT_EQ("", calls());
    EXPECT_EQ(4, watcher->numWatches());
}

TEST_P(OneEventRoutingTest, anEventOfAnUnknownWatchFindsNoListenerEvenIfAVolumeHasNoName)
{
    std::string noName;
    watcher->addVolumeWatchListener(noName, &onlooker);
    route(unknown, "x");
    EXPECT_EQ(std::vector<LogLine> { noTarget("") }, loggedLines());
    EXPECT_EQ("", calls());
}

TEST_P(OneEventRoutingTest, anEventHasTheNameThatTheKernelReports)
{
    ASSERT_EQ(0U, (oddName.length() + 1) % sizeof(inotify_event));
    const std::string names[] = { oddName, "x" + oddName, std::string(255, '\xfe') };
    std::string expected;
    for (const std::string& name : names) {
        ASSERT_EQ(0, mknod((a + "/" + name).c_str(), S_IFREG | 0644, 0));
        expected += call(a, name);
    }
    const std::vector<inotify_event*> events = kernelEvents();
    ASSERT_EQ(3U, events.size());
    for (inotify_event* event : events)
        route(event);
    EXPECT_EQ(expected, calls());
}

TEST_P(OneEventRoutingTest, anEventAboutTheFolderItselfHasNoName)
{
    inotify_event event[2] = {};
    event[0].wd = 1;
    std::memcpy(event + 1, "next", 5); // what follows the record belongs to another one
    route(event);
    EXPECT_EQ(call(a, ""), calls());
    EXPECT_EQ(2, watcher->numWatches());
}

// Deleted folders

TEST_F(EventRoutingTest, aDeletedFolderLosesItsWatchAfterTheListenerWasTold)
{
    watchNew("a/gone");
    watchNew("a/gone/below");
    watchNew("a/gone too");
    std::string seen;
    onlooker.look = [&] { seen = watches(); };
    deleteFolder(1, "gone");
    EXPECT_EQ("1 a music\n2 p photos\n3 gone music\n4 below music\n5 gone too music\n", seen);
    EXPECT_EQ("1 a music\n2 p photos\n4 below music\n5 gone too music\n", watches());
    EXPECT_EQ(6, watch(a + "/gone")) << "the kernel's watch was ended as well";
}

TEST_F(EventRoutingTest, aDeletedFolderLosesItsWatchAlsoWithoutAListener)
{
    const std::string gone = watchNew("a/gone");
    watcher->removeVolumeWatchListener(music);
    deleteFolder(1, "gone");
    EXPECT_EQ(std::vector<LogLine> { noTarget("music") }, loggedLines());
    EXPECT_EQ(0, unwatch(gone));
    EXPECT_EQ(2, watcher->numWatches());
}

TEST_F(EventRoutingTest, aDeletedFolderIsSoughtAtThePathThatItsParentHasAfterTheCall)
{
    watchNew("a/gone");
    const std::string renamed = folder.path("renamed");
    onlooker.look = [&] {
        fs::rename(a, renamed);
        watch(renamed);
        watch(renamed + "/gone");
    };
    deleteFolder(1, "gone");
    EXPECT_EQ("1 renamed music\n2 p photos\n", watches());
}

TEST_F(EventRoutingTest, aDeletedFolderOfAnUnknownWatchIsSoughtAtTheTop)
{
    ASSERT_EQ(3, watch("/tmp"));
    deleteFolder(unknown, "tmp");
    EXPECT_EQ(std::vector<LogLine> { noTarget("") }, loggedLines());
    EXPECT_EQ(0, unwatch("/tmp"));
}

TEST_F(EventRoutingTest, aDeletedFolderWithoutAWatchChangesNoOther)
{
    deleteFolder(1, "never watched");
    EXPECT_EQ("delete folder " + a + " never watched\n", calls());
    EXPECT_EQ("1 a music\n2 p photos\n", watches());
}

// The move rule, the same for files and folders

struct MoveRoutine {
    const char* name;
    void (VolumeWatcher::*route)(inotify_event*, inotify_event*);
};

void PrintTo(const MoveRoutine& routine, std::ostream* out) { *out << routine.name; }

class MoveRoutingTest : public EventRoutingTest, public testing::WithParamInterface<MoveRoutine> {
protected:
    void move(int fromWd, int toWd)
    {
        EventRecord from(fromWd, "old");
        EventRecord to(toWd, "new");
        (*watcher.*GetParam().route)(from.get(), to.get());
    }
    std::string call() const { return std::string("move ") + GetParam().name; }
};

INSTANTIATE_TEST_SUITE_P(Watcher, MoveRoutingTest,
    testing::Values(MoveRoutine { "file", &VolumeWatcher::handleMoveFile },
        MoveRoutine { "folder", &VolumeWatcher::handleMoveFolder }),
    [](const testing::TestParamInfo<MoveRoutine>& routine) { return std::string(routine.param.name); });

TEST_P(MoveRoutingTest, aMoveWithinAVolumeGoesToItsListenerAlone)
{
    const std::string b = watchNew("b");
    move(1, 1);
    move(1, 3);
    EXPECT_EQ(call() + " " + a + " old " + a + " new\n" + call() + " " + a + " old " + b + " new\n", calls());
    EXPECT_EQ(nothing, loggedLines());
}

TEST_P(MoveRoutingTest, aMoveBetweenVolumesIsLoggedAndNotDelivered)
{
    move(1, 2);
    move(2, 1);
    EXPECT_EQ("", calls());
    EXPECT_EQ((std::vector<LogLine> { crossing("music", "photos"), crossing("photos", "music") }), loggedLines());
}

TEST_P(MoveRoutingTest, aMoveBetweenVolumesWithoutListenersIsStillACrossing)
{
    watcher->removeVolumeWatchListener(music);
    watcher->removeVolumeWatchListener(photos);
    move(1, 2);
    EXPECT_EQ(std::vector<LogLine> { crossing("music", "photos") }, loggedLines());
}

TEST_P(MoveRoutingTest, aMoveFromOrToAnUnknownWatchIsACrossing)
{
    move(unknown, 1);
    move(1, unknown);
    move(unknown, unknown);
    move(unknown, unknown + 1);
    EXPECT_EQ("", calls());
    EXPECT_EQ(
        (std::vector<LogLine> { crossing("", "music"), crossing("music", ""), crossing("", ""), crossing("", "") }),
        loggedLines());
}

TEST_P(MoveRoutingTest, aMoveWithoutAListenerIsLoggedWithTheVolumeItLeft)
{
    watchNew("b");
    watcher->removeVolumeWatchListener(music);
    move(1, 3);
    EXPECT_EQ(std::vector<LogLine> { noTarget("music") }, loggedLines());
    EXPECT_EQ("", calls());
}

TEST_P(MoveRoutingTest, aMoveHasTheNamesThatTheKernelReports)
{
    const std::string b = watchNew("b");
    const std::string moved = "moved" + oddName;
    ASSERT_EQ(0, mkdir((folder.path() + "/" + oddName).c_str(),
                     0755)); // where nobody watches
    fs::rename(folder.path() + "/" + oddName, a + "/" + oddName);
    fs::rename(a + "/" + oddName, b + "/" + moved);
    const std::vector<inotify_event*> events = kernelEvents();
    ASSERT_EQ(3U, events.size());
    ASSERT_EQ(events[1]->cookie, events[2]->cookie);
    (*watcher.*GetParam().route)(events[1], events[2]);
    EXPECT_EQ(call() + " " + a + " " + oddName + " " + b + " " + moved + "\n", calls());
    EXPECT_EQ(nothing, loggedLines());
}

// The watches of what was moved

TEST_F(EventRoutingTest, aMovedFileLeavesTheWatches)
{
    watchNew("a/old");
    moveFile(1, "old", 1, "new");
    EXPECT_EQ("1 a music\n2 p photos\n3 old music\n", watches());
}

TEST_F(EventRoutingTest, aMoveWithoutANameLeavesTheWatches)
{
    inotify_event event[2] = {};
    event[0].wd = 1;
    std::memcpy(event + 1, "next", 5);
    EventRecord named(1, "x");
    watcher->handleMoveFile(event, event);
    watcher->handleMoveFolder(event, event);
    watcher->handleMoveFolder(named.get(), event);
    watcher->handleMoveFolder(event, named.get());
    EXPECT_EQ("move file " + a + "  " + a + " \nmove folder " + a + "  " + a + " \nmove folder " + a + " x " + a
            + " \nmove folder " + a + "  " + a + " x\n",
        calls());
    EXPECT_EQ("1 a music\n2 p photos\n", watches());
}

TEST_F(EventRoutingTest, aMovedFolderGetsAWatchOfItsOwnAtTheNewPlaceAfterTheListenerWasTold)
{
    const std::string below = watchNew("a/old/below");
    watchNew("a/old");
    fs::rename(a + "/old", a + "/new");
    std::string seen;
    onlooker.look = [&] { seen = watches(); };
    moveFolder(1, "old", 1, "new");
    EXPECT_EQ("1 a music\n2 p photos\n3 below music\n4 old music\n", seen);
    EXPECT_EQ("1 a music\n2 p photos\n3 below music\n5 new music\n", watches());
    EXPECT_EQ(3, unwatch(below)) << "those below are left to the listener's walk";
}

TEST_F(EventRoutingTest, aMovedFolderKeepsTheWatchThatTheListenersWalkToldItsNewPath)
{
    watchNew("a/old");
    fs::rename(a + "/old", a + "/new");
    onlooker.look = [&] { EXPECT_EQ(3, watch(a + "/new")); };
    moveFolder(1, "old", 1, "new");
    EXPECT_EQ("1 a music\n2 p photos\n3 new music\n", watches());
}

TEST_F(EventRoutingTest, aFolderThatCrossedIsWatchedForTheVolumeThatItCameTo)
{
    watchNew("a/old");
    fs::rename(a + "/old", p + "/new");
    moveFolder(1, "old", 2, "new");
    EXPECT_EQ(std::vector<LogLine> { crossing("music", "photos") }, loggedLines());
    EXPECT_EQ("", calls());
    EXPECT_EQ("1 a music\n2 p photos\n4 new photos\n", watches());
}

TEST_F(EventRoutingTest, theWatchMovesAlsoWithoutAListener)
{
    watchNew("a/old");
    fs::rename(a + "/old", a + "/new");
    watcher->removeVolumeWatchListener(music);
    moveFolder(1, "old", 1, "new");
    EXPECT_EQ(std::vector<LogLine> { noTarget("music") }, loggedLines());
    EXPECT_EQ(0, unwatch(a + "/old"));
    EXPECT_EQ(4, unwatch(a + "/new"));
}

TEST_F(EventRoutingTest, aFolderThatCameFromAnUnknownWatchIsWatched)
{
    fs::create_directory(a + "/new");
    moveFolder(unknown, "old", 1, "new");
    EXPECT_EQ("1 a music\n2 p photos\n3 new music\n", watches());
}

TEST_F(EventRoutingTest, aFolderThatWentToAnUnknownWatchOnlyLosesItsOwn)
{
    watchNew("a/old");
    moveFolder(1, "old", unknown, "nowhere to be found");
    EXPECT_EQ("1 a music\n2 p photos\n", watches());
}

TEST_F(EventRoutingTest, aFolderThatIsGoneFromItsNewPlaceIsNotWatched)
{
    watchNew("a/old");
    moveFolder(1, "old", 1, "gone");
    EXPECT_EQ("move folder " + a + " old " + a + " gone\n", calls());
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_EQ("1 a music\n2 p photos\n", watches());
}

} // namespace
