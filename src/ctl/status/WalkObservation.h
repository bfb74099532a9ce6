#pragma once

#include "ctl/status/ProcessFacts.h"

#include <optional>
#include <vector>

/// The walks that can be seen from outside: each has a thread, beside the daemon's main, watcher and purge thread.
/// Which volume a thread walks cannot be seen. A walk of a few changed folders has no thread of its own.
struct WalkObservation {
    int running = 0;
    bool isFirst = false;     ///< all of them began with the daemon, so that they give the folders their watches
    long long startTicks = 0; ///< when the earliest of them began: machine ticks. With the daemon for the first ones
};

/// `threads`: sorted as ProcessFacts gives them. While the daemon starts, a walk may be missing.
WalkObservation observeWalks(const std::vector<ThreadFacts>& threads, long long ticksPerSecond);

/// How far the walks are.
struct WalkProgress {
    long long done = 0;             ///< folders
    std::optional<long long> total; ///< as far as it is known
    double perSecond = 0;           ///< folders, on average
    std::optional<long long> secondsLeft;
};

/// Of walks that have taken so many seconds.
WalkProgress progressOf(long long done, std::optional<long long> total, double seconds);

/// How far the first walks are. `watches`: what the daemon holds. The walk adds one per folder. `total`: the folders of
/// all catalogues, where they are known from an earlier run; in a new catalogue they only appear with the walk. nullopt
/// when this says nothing: the walk adds no watches any more, because all folders have one or the kernel's limit is
/// reached.
std::optional<WalkProgress> walkProgress(
    long long watches, long long limit, std::optional<long long> total, double seconds);
