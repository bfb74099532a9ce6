#pragma once

#include <chrono>
#include <ctime>

// The test programs have a time() and a gettimeofday() of their own, which tell the real time until one of these
// objects says otherwise, so that minutes pass at once. One of each kind at a time, made before the threads that it
// shall affect. Any thread.

/// While it lives, time() stands still until it is told to go on.
class ClockAt {
public:
    explicit ClockAt(time_t now);
    ~ClockAt();
    ClockAt(const ClockAt&) = delete;
    ClockAt& operator=(const ClockAt&) = delete;

    void set(time_t now);
    void advance(int seconds);
    /// From now on every look at the clock is a second later than the one before.
    void tick();
    /// From now on time() tells the real time again.
    void release();
    /// Waits, up to a generous bound, until time() was asked `times` times in all since the object was made.
    bool waitUntilAsked(int times) const;
};

/// While it lives, every look at the clock of gettimeofday() is this much later than the one before.
class SlowMachine {
public:
    explicit SlowMachine(std::chrono::microseconds perLook);
    ~SlowMachine();
    SlowMachine(const SlowMachine&) = delete;
    SlowMachine& operator=(const SlowMachine&) = delete;
};
