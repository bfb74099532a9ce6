#include "watch/RoutingFixture.h"

#include <ostream>

namespace {

struct MoveRoutine {
    const char* name;
    void (VolumeWatcher::*route)(inotify_event*, inotify_event*);
};

void PrintTo(const MoveRoutine& routine, std::ostream* out) { *out << routine.name; }

/// The move rule, the same for files and folders.
class MoveRoutingTest : public RoutingFixture, public testing::WithParamInterface<MoveRoutine> {
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
    std::filesystem::rename(folder.path() + "/" + oddName, a + "/" + oddName);
    std::filesystem::rename(a + "/" + oddName, b + "/" + moved);
    const std::vector<inotify_event*> events = kernelEvents();
    ASSERT_EQ(3U, events.size());
    ASSERT_EQ(events[1]->cookie, events[2]->cookie);
    (*watcher.*GetParam().route)(events[1], events[2]);
    EXPECT_EQ(call() + " " + a + " " + oddName + " " + b + " " + moved + "\n", calls());
    EXPECT_EQ(nothing, loggedLines());
}

} // namespace
