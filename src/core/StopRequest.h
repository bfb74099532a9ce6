#pragma once

#include <atomic>

/// A flag that asks work to end. Any thread may make the request and ask. In the daemon the main thread takes it back.
class StopRequest {
public:
    void make() { made = true; }
    void takeBack() { made = false; }
    bool isMade() const { return made; }
    /// Makes the request when a SIGTERM is pending. The main thread cannot serve SIGTERM, and so not make the request,
    /// as long as it does this work itself or waits for it. A signal that was seen once stays seen: work that ended for
    /// it asks again before it logs a failure, and by then the handler may have begun and not yet made the request.
    /// Costs a system call, so it is not for the innermost loops.
    bool isMadeOrPending();

private:
    std::atomic<bool> made = false;
};
