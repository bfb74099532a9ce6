#pragma once

#include <atomic>

/// A flag that asks work to end. In the daemon the main thread makes the request and takes it back. Any thread may ask.
class StopRequest {
public:
    void make() { made = true; }
    void takeBack() { made = false; }
    bool isMade() const { return made; }
    /// True also while a SIGTERM is pending. The main thread cannot serve SIGTERM, and so not make the request, as long
    /// as it does this work itself or waits for it. Costs a system call, so it is not for the innermost loops.
    bool isMadeOrPending() const;

private:
    std::atomic<bool> made = false;
};
