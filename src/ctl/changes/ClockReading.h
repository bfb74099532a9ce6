#pragma once

#include <cstdint>

struct VolumePosition;

/// What the machine's clocks say at one moment.
struct ClockReading {
    long long now = 0; ///< seconds since the epoch
    /// Milliseconds since the epoch at the machine's start, as the clock has it now: changes only when it is set.
    long long offset = 0;
    std::uint64_t boot = 0; ///< which start of the machine this is

    static ClockReading take();

    /// By how many seconds, rounded up, the clock was set back since the position was taken; 0 when it was not, or when
    /// the machine was started anew since, so that nothing tells.
    long long setBackSince(const VolumePosition& position) const;
};
