#pragma once

#include <csignal>

/// Blocks every signal on the calling thread and logs the result. Every thread but the main one does this first, so
/// that SIGTERM and SIGUSR1 reach the main thread.
void blockAllSignals();

/// The two signals that the daemon serves, SIGTERM and SIGUSR1. Their handlers log, allocate and join threads. That is
/// sound only while the main thread waits. So main() blocks both signals at its beginning, and they are let in during
/// the waits alone.
sigset_t servedSignals();

/// The calling thread's signal mask without the served signals: the mask for a wait that lets them in.
sigset_t maskWithServedSignalsOpen();

/// Whether a SIGTERM is pending. It stays pending while the main thread is busy, so work that may keep that thread busy
/// for long asks this and ends early when it is true. Any thread; a system call.
bool isStopSignalPending();

/// Blocks or opens the served signals on the calling thread, and restores the former mask at the end of the scope.
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
