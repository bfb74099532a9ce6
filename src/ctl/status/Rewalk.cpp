#include "ctl/status/Rewalk.h"

#include "ctl/status/EndedThreads.h"

#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds untilTaken(5);         // the daemon takes it at once, unless it purges or starts
constexpr std::chrono::milliseconds afterTaken(1500); // it then needs a fraction of a millisecond
constexpr std::chrono::seconds whileBusy(10);         // longer where its main thread is busy
constexpr std::chrono::milliseconds betweenLooks(1);
constexpr std::chrono::milliseconds betweenLooksAtEnd(50);
constexpr std::size_t steadyThreads = 3;

} // namespace

Rewalk::Rewalk(const ProcessFacts& process)
    : daemon(process)
    , start(daemon.stat())
    , threads(daemon.threads())
    , endedTime(timeOfEndedThreads(daemon))
{
}

bool Rewalk::isAlive() const
{
    const std::optional<ProcessStat> now = daemon.stat();
    return now && start && now->startTicks == start->startTicks;
}

bool Rewalk::hasNewThread(const std::vector<ThreadFacts>& now) const
{
    return std::any_of(now.begin(), now.end(), [this](const ThreadFacts& thread) {
        return std::find(threads.begin(), threads.end(), thread) == threads.end();
    });
}

/// Whether a thread that was not there before has come and gone. False when that cannot be told.
bool Rewalk::hasThreadEnded() const
{
    const std::optional<long long> now = timeOfEndedThreads(daemon);
    return now && endedTime && *now > *endedTime && daemon.threads() == threads;
}

Rewalk::Outcome Rewalk::observe()
{
    Clock::time_point deadline = Clock::now() + untilTaken;
    const Clock::time_point latest = deadline + whileBusy;
    bool isTaken = false;
    // A main thread that is not at rest may yet begin a walk, on a slow machine.
    while (Clock::now() < deadline || (isTaken && Clock::now() < latest && isAlive() && !isMainThreadAtRest())) {
        if (hasNewThread(daemon.threads()))
            return Outcome::begun;
        if (!isTaken && !daemon.isPending(SIGUSR1)) {
            isTaken = true;
            deadline = Clock::now() + afterTaken;
        }
        if (isTaken && hasThreadEnded())
            return Outcome::finished;
        std::this_thread::sleep_for(betweenLooks);
    }
    if (!isAlive())
        return Outcome::ended;
    if (!isTaken)
        return Outcome::notTaken;
    return Outcome::tooSoon;
}

/// Whether the daemon's main thread waits. It takes the volumes in turn, with a purge after each beginning of a walk,
/// and lets signals in when all that is done, and only then.
bool Rewalk::isMainThreadAtRest() const { return daemon.letsIn(SIGUSR1); }

bool Rewalk::waitForEnd(const std::function<void()>& waiting) const
{
    while (isAlive()) {
        // In this order: once the main thread is at rest, no further walk begins, so that the threads tell.
        if (isMainThreadAtRest() && daemon.threads().size() <= steadyThreads && isAlive())
            return true;
        waiting();
        std::this_thread::sleep_for(betweenLooksAtEnd);
    }
    return false;
}

long long latestNextWish(long long signalled, long long started, long long ready)
{
    constexpr long long betweenWalks = 300;
    constexpr long long firstSleep = 60;
    constexpr long long rounding = 1; // a process's start is known to the second
    long long lastLoopBegin = signalled;
    if (signalled - started < betweenWalks) // no wish can have counted yet
        lastLoopBegin = std::min(signalled, ready + firstSleep + rounding);
    return lastLoopBegin + betweenWalks;
}

std::string whyNoWalkBegan(int walking, int configured)
{
    std::string why = "No walk has been seen to begin: ";
    if (walking == 0)
        return why + "the last one, or the start of the daemon, seems to be less than 300 seconds ago";
    // The daemon does not say how many volumes it serves. So neither cause can be ruled out.
    return why
        + fmt::format(
            "{} of {} configured volumes {} being walked already, and the rest was walked less than 300 seconds "
            "ago, or left out by the daemon at its start",
            walking, configured, walking == 1 ? "was" : "were");
}
