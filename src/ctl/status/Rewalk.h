#pragma once

#include "ctl/status/ProcessFacts.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// The wish for a full walk that SIGUSR1 is, and what becomes of it. The daemon gives no answer, so the threads tell:
/// it makes one for each volume that it walks. Its main thread blocks the signal but for its waits.
class Rewalk {
public:
    enum class Outcome {
        begun,    ///< walks have begun
        finished, ///< walks have begun, and ended before they could be seen
        tooSoon,  ///< the signal was taken, and no walk began
        notTaken, ///< the signal still waits: the daemon is busy elsewhere
        ended,    ///< the daemon has ended
    };

    /// Remembers how the daemon is before the signal.
    explicit Rewalk(const ProcessFacts& daemon);

    /// Right after the signal: waits until it shows what comes of it, some seconds at the most.
    Outcome observe();
    /// Waits until all walks have ended; false when the daemon has ended first. `waiting` is called all the while.
    bool waitForEnd(const std::function<void()>& waiting) const;

    /// Threads before the signal, sorted by start.
    const std::vector<ThreadFacts>& threadsBefore() const { return threads; }

private:
    bool isAlive() const;
    bool isMainThreadAtRest() const;
    bool hasNewThread(const std::vector<ThreadFacts>& now) const;
    bool hasThreadEnded() const;

    const ProcessFacts daemon;
    const std::optional<ProcessStat> start;
    const std::vector<ThreadFacts> threads;
    const std::optional<long long> endedTime;
};

/// When a signal counts again, at the latest, in seconds since 1970, after one at `signalled` that came too soon. The
/// daemon looks for 300 seconds from its last walk or, before the first signal that counts, from the beginning of its
/// loop: at the first signal, or a minute after it was `ready`.
long long latestNextWish(long long signalled, long long started, long long ready);

/// Why no walk may have begun though the signal was taken, in a sentence without a full stop. `walking`: how many of
/// the `configured` volumes were being walked already.
std::string whyNoWalkBegan(int walking, int configured);
