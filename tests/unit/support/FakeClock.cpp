#include "support/FakeClock.h"

#include "support/Waiting.h"

#include <sys/time.h>

#include <atomic>

namespace {

std::atomic<bool> fixed = false;
std::atomic<time_t> fixedTime = 0;
std::atomic<time_t> secondsPerLook = 0;
std::atomic<int> timesAsked = 0;

std::atomic<long long> microsPerLook = 0;
std::atomic<long long> looks = 0;

} // namespace

extern "C" time_t time(time_t* result) noexcept
{
    ++timesAsked;
    time_t now = 0;
    if (fixed) {
        now = fixedTime.fetch_add(secondsPerLook);
    } else {
        timespec real;
        clock_gettime(CLOCK_REALTIME_COARSE, &real);
        now = real.tv_sec;
    }
    if (result != nullptr)
        *result = now;
    return now;
}

extern "C" int gettimeofday(timeval* result, void*) noexcept
{
    if (microsPerLook != 0) {
        const long long micros = 1600000000700000 + microsPerLook * looks++; // seconds begin between the looks
        *result = { micros / 1000000, micros % 1000000 };
        return 0;
    }
    timespec real;
    clock_gettime(CLOCK_REALTIME, &real);
    *result = { real.tv_sec, real.tv_nsec / 1000 };
    return 0;
}

ClockAt::ClockAt(time_t now)
{
    timesAsked = 0;
    set(now);
}

ClockAt::~ClockAt() { release(); }

void ClockAt::set(time_t now)
{
    fixedTime = now;
    fixed = true;
}

void ClockAt::advance(int seconds) { fixedTime += seconds; }

void ClockAt::tick() { secondsPerLook = 1; }

void ClockAt::release()
{
    fixed = false;
    secondsPerLook = 0;
}

bool ClockAt::waitUntilAsked(int times) const
{
    return waitUntil([times] { return timesAsked >= times; });
}

SlowMachine::SlowMachine(std::chrono::microseconds perLook)
{
    looks = 0;
    microsPerLook = perLook.count();
}

SlowMachine::~SlowMachine() { microsPerLook = 0; }
