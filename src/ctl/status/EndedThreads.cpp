#include "ctl/status/EndedThreads.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <thread>

namespace {

std::optional<long long> timeOfProcess(int process)
{
    clockid_t clock = 0;
    timespec time = {};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0)
        return std::nullopt;
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

} // namespace

std::optional<long long> timeOfEndedThreads(const ProcessFacts& process)
{
    constexpr int tries = 50;
    for (int i = 0; i < tries; ++i) {
        const auto before = timeOfProcess(process.id());
        const auto living = process.timeOfThreads();
        const auto after = timeOfProcess(process.id());
        if (!before || !living || !after)
            return std::nullopt;
        if (*before == *after) // nothing of it ran meanwhile
            return *before - *living;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return std::nullopt;
}
