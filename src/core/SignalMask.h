#pragma once

#include <csignal>

/// Blocks every signal on the calling thread and logs the result: SIGTERM and SIGUSR1 belong to the main thread.
void blockAllSignals();

/// The two signals that the daemon serves, SIGTERM and SIGUSR1. Their handlers do real work (they log, allocate, join
/// threads), which is sound only where the main thread is at rest: it blocks them first thing and opens them around
/// its waits alone.
sigset_t servedSignals();

/// The calling thread's signal mask with the served signals taken out: what a wait lets in.
sigset_t maskWithServedSignalsOpen();

/// Whether a SIGTERM waits to be served. Whoever keeps the main thread busy for long asks, and gives up.
bool isStopSignalPending();

/// Blocks or opens the served signals on the calling thread and restores its mask at the end of the scope.
class ServedSignals {
public:
    enum Change { block = SIG_BLOCK, open = SIG_UNBLOCK };
    explicit ServedSignals(Change change);
    ~ServedSignals();
    ServedSignals(const ServedSignals&) = delete;
    ServedSignals& operator=(const ServedSignals&) = delete;

private:
    sigset_t before;
};
