#include "ctl/changes/ClockReading.h"

#include "ctl/Fnv.h"
#include "ctl/changes/VolumePosition.h"

#include <ctime>
#include <fstream>
#include <limits>
#include <string>

namespace {

constexpr long long toleranceMilliseconds = 100; // the two clocks are not read at the same moment
constexpr int readings = 5;

long long milliseconds(clockid_t clock)
{
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<long long>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

std::uint64_t bootIdentity()
{
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string text;
    file >> text;
    return text.empty() ? 0 : fnv(text);
}

} // namespace

ClockReading ClockReading::take()
{
    ClockReading reading;
    long long closest = std::numeric_limits<long long>::max();
    // This process may have to wait between the two. The closest of several readings counts.
    for (int i = 0; i < readings; ++i) {
        const long long before = milliseconds(CLOCK_BOOTTIME);
        const long long now = milliseconds(CLOCK_REALTIME);
        const long long pause = milliseconds(CLOCK_BOOTTIME) - before;
        if (pause >= closest)
            continue;
        closest = pause;
        reading.now = now / 1000;
        // This clock also runs while the machine sleeps, and both are slewed alike. So the difference stays the same
        // until somebody sets the time of day.
        reading.offset = now - before;
    }
    reading.boot = bootIdentity();
    return reading;
}

long long ClockReading::setBackSince(const VolumePosition& position) const
{
    const long long back = position.clockOffset - offset;
    if (boot == 0 || boot != position.boot || back <= toleranceMilliseconds)
        return 0;
    return (back + 999) / 1000;
}
