#include "ctl/changes/ChangesFollower.h"

#include "ctl/Commands.h"
#include "ctl/Problem.h"
#include "ctl/changes/ChangeWatch.h"
#include "ctl/changes/ChangesRun.h"
#include "ctl/changes/LineOutput.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <utility>

namespace {

constexpr int quietMilliseconds = 200; // a walk commits again and again
constexpr int lateMilliseconds = 3000; // until a change is looked at once more
constexpr int firstRetry = 10000;      // for a catalogue that is there but cannot be read
constexpr int longestRetry = 600000;
constexpr std::chrono::seconds longestGathering { 1 };

/// From here on SIGTERM and SIGINT end nothing: they make the descriptor readable.
int catchStopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

} // namespace

int ChangesFollower::follow(ChangesRun& run)
{
    const int stop = catchStopSignals();
    ChangeWatch watch(run.cataloguePaths());
    LineOutput output(stop);
    try {
        ChangesFollower(run, watch, output, stop).followUntilStopped();
    } catch (const StopRequested&) {
        // The cursor is that of the last complete batch.
    }
    close(stop);
    return exitSuccess;
}

ChangesFollower::ChangesFollower(ChangesRun& run, ChangeWatch& watch, LineOutput& output, int stop)
    : changes(run)
    , watching(watch)
    , lines(output)
    , stopDescriptor(stop)
    , retryPause(firstRetry)
{
}

void ChangesFollower::followUntilStopped()
{
    std::set<std::size_t> due = watching.all();
    for (;;) {
        for (const std::size_t volume : due) {
            watching.renew(volume);
            changes.read(volume, VolumeChanges::Restart::list, lines);
        }
        if (changes.hasNews())
            changes.printCursor(lines);
        try {
            due = waitForChanges();
        } catch (const StopRequested&) {
            break;
        }
    }
    // A reading without a row also counts: it shows that nothing was purged unseen until then.
    if (changes.hasMoved())
        changes.printCursor(lines);
}

/// Waits for a change and for its end, or not much longer: what keeps changing is to be seen, too. What has changed is
/// looked at once more after a pause: the kernel reports the writing of the log, and a moment later the rows can be
/// seen.
std::set<std::size_t> ChangesFollower::waitForChanges()
{
    std::set<std::size_t> changed;
    if (!toLookAtAgain.empty()) {
        changed = waitOnce(lateMilliseconds);
        if (changed.empty())
            return std::exchange(toLookAtAgain, {});
    }
    while (changed.empty()) {
        std::set<std::size_t> troubled = inTrouble();
        if (troubled.empty())
            retryPause = firstRetry;
        changed = waitOnce(troubled.empty() ? -1 : retryPause);
        if (changed.empty() && !troubled.empty()) {
            retryPause = std::min(2 * retryPause, longestRetry);
            return troubled;
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + longestGathering;
    for (;;) {
        std::set<std::size_t> more = waitOnce(quietMilliseconds);
        if (more.empty() || std::chrono::steady_clock::now() >= deadline)
            break;
        changed.merge(more);
    }
    toLookAtAgain = changed;
    return changed;
}

/// Returns what has changed, nothing after that time.
std::set<std::size_t> ChangesFollower::waitOnce(int milliseconds)
{
    // A pipe without a reader is in error, whatever it is asked for.
    pollfd waits[] = { { stopDescriptor, POLLIN, 0 }, { watching.changesDescriptor(), POLLIN, 0 },
        { watching.mountsDescriptor(), POLLPRI, 0 }, { STDOUT_FILENO, 0, 0 } };
    const int ready = poll(waits, 4, milliseconds);
    if (ready < 0 && errno != EINTR)
        throw Problem("poll", "Waiting for changes failed");
    if (ready > 0 && waits[0].revents != 0)
        throw StopRequested();
    if (ready > 0 && (waits[3].revents & (POLLERR | POLLNVAL)) != 0)
        throw Problem("standard output", "Nobody reads it any more");
    std::set<std::size_t> changed;
    if (ready > 0 && waits[1].revents != 0)
        changed = watching.take();
    if (ready > 0 && waits[2].revents != 0)
        changed = watching.all();
    return changed;
}

std::set<std::size_t> ChangesFollower::inTrouble() const
{
    std::set<std::size_t> troubled;
    for (std::size_t volume = 0; volume < changes.volumeCount(); ++volume) {
        if (changes.isInTrouble(volume))
            troubled.insert(volume);
    }
    return troubled;
}
