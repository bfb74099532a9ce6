#include "ctl/status/WalkObservation.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr std::size_t steadyThreads = 3; // main, watcher, purge
/// No later walk begins within this time of the daemon's start, unless the clock was set.
constexpr long long earliestLaterWalkSeconds = 290;

} // namespace

WalkObservation observeWalks(const std::vector<ThreadFacts>& threads, long long ticksPerSecond)
{
    WalkObservation walks;
    if (threads.size() <= steadyThreads)
        return walks;
    walks.running = static_cast<int>(threads.size() - steadyThreads);
    const long long daemonStart = threads.front().startTicks;
    const auto isLater = [=](const ThreadFacts& thread) {
        return thread.startTicks - daemonStart >= earliestLaterWalkSeconds * ticksPerSecond;
    };
    const auto later = std::find_if(threads.begin(), threads.end(), isLater);
    walks.isFirst = later == threads.end();
    // Those that are not later and more than the steady ones are still the first ones.
    const bool areAllLater = threads.end() - later == walks.running;
    walks.startTicks = areAllLater ? later->startTicks : daemonStart;
    return walks;
}

WalkProgress progressOf(long long done, std::optional<long long> total, double seconds)
{
    WalkProgress progress;
    progress.done = done;
    progress.total = total;
    progress.perSecond = seconds > 0 ? static_cast<double>(done) / seconds : 0;
    if (total && progress.perSecond > 0)
        progress.secondsLeft = std::llround(static_cast<double>(*total - done) / progress.perSecond);
    return progress;
}

std::optional<WalkProgress> walkProgress(
    long long watches, long long limit, std::optional<long long> total, double seconds)
{
    if (watches >= limit || (total && watches >= *total))
        return std::nullopt;
    return progressOf(watches, total, seconds);
}
