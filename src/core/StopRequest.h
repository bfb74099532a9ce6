#pragma once

#include <atomic>

/// Whether somebody's work is to end. The main thread makes the request, and takes it back; any thread asks.
class StopRequest {
public:
    void make() { made = true; }
    void takeBack() { made = false; }
    bool isMade() const { return made; }
    /// Whether it is made, or a SIGTERM waits to be served: the main thread may be waiting for the end of the very work
    /// that asks. A system call.
    bool isMadeOrPending() const;

private:
    std::atomic<bool> made = false;
};
