#include "watch/RoutingFixture.h"

#include <ostream>

namespace {

struct Routine {
    const char* name;
    void (VolumeWatcher::*route)(inotify_event*);
    const char* call;
};

void PrintTo(const Routine& routine, std::ostream* out) { *out << routine.name; }

/// Events of one folder.
class EventRoutingTest : public RoutingFixture, public testing::WithParamInterface<Routine> {
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

INSTANTIATE_TEST_SUITE_P(Watcher, EventRoutingTest,
    testing::Values(Routine { "changeFolder", &VolumeWatcher::handleChangeFolder, "change" },
        Routine { "newFolder", &VolumeWatcher::handleNewFolder, "new folder" },
        Routine { "newFile", &VolumeWatcher::handleNewFile, "new file" },
        Routine { "modifyFile", &VolumeWatcher::handleModifyFile, "modify file" },
        Routine { "deleteFile", &VolumeWatcher::handleDeleteFile, "delete file" },
        Routine { "deleteFolder", &VolumeWatcher::handleDeleteFolder, "delete folder" }),
    [](const testing::TestParamInfo<Routine>& routine) { return std::string(routine.param.name); });

TEST_P(EventRoutingTest, anEventGoesToTheListenerOfItsVolumeAlone)
{
    route(1, "x");
    EXPECT_EQ(call(a, "x"), calls());
    route(2, "y");
    EXPECT_EQ(call(a, "x") + "photos: " + call(p, "y"), calls());
    EXPECT_EQ(nothing, loggedLines());
    EXPECT_EQ(2, watcher->numWatches());
}

TEST_P(EventRoutingTest, anEventWithoutAListenerIsLoggedWithTheVolume)
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

TEST_P(EventRoutingTest, anEventOfAnUnknownWatchIsLoggedWithoutAVolumeAndCounted)
{
    for (const int wd : { unknown, -1, unknown })
        route(wd, "x");
    EXPECT_EQ((std::vector<LogLine> { noTarget(""), noTarget(""), noTarget("") }), loggedLines());
    EXPECT_EQ("", calls());
    EXPECT_EQ(4, watcher->numWatches());
}

TEST_P(EventRoutingTest, anEventOfAnUnknownWatchFindsNoListenerEvenIfAVolumeHasNoName)
{
    std::string noName;
    watcher->addVolumeWatchListener(noName, &onlooker);
    route(unknown, "x");
    EXPECT_EQ(std::vector<LogLine> { noTarget("") }, loggedLines());
    EXPECT_EQ("", calls());
}

TEST_P(EventRoutingTest, anEventHasTheNameThatTheKernelReports)
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

TEST_P(EventRoutingTest, anEventAboutTheFolderItselfHasNoName)
{
    EventRecord event(1, "next");
    event.get()->len = 0; // what follows the record belongs to another one
    route(event.get());
    EXPECT_EQ(call(a, ""), calls());
    EXPECT_EQ(2, watcher->numWatches());
}

} // namespace
