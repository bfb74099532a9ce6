#pragma once

#include <optional>
#include <string>

class Catalogue;
struct CatalogueFacts;
struct ClockReading;
struct VolumePosition;

/// Why the changes since a position cannot be told, so that the consumer has to begin anew.
struct RestartReason {
    const char* code;        ///< "made-anew", "purged" or "clock-back": for programs
    const char* explanation; ///< a sentence without a full stop
};

/// Up to this many seconds a clock that was set back is made up for by reading that much more.
constexpr long long smallStepBack = 300;

/// Judges by times and ids alone, without a look at rows. `threshold` is the purge threshold in seconds.
std::optional<RestartReason> whyRestart(
    const VolumePosition& since, const CatalogueFacts& facts, const ClockReading& clock, long long threshold);

/// Also looks at the rows that tell more. In the open transaction of the catalogue. Throws a Problem.
std::optional<RestartReason> whyRestart(const VolumePosition& since, const CatalogueFacts& facts,
    const ClockReading& clock, long long threshold, const Catalogue& catalogue);

/// Up to which moment the times of rows can be trusted. While there were rows in the future, of a clock that was set
/// back, that is the last reading: those that were in the future then may be in the past by now.
long long settlingMoment(const VolumePosition* since, const ClockReading& clock);

/// The next position's `doubtUntil`. A transaction that was open at a small step back has rows of the former clock, and
/// shows them only when it is committed.
long long nextDoubt(const VolumePosition* since, const ClockReading& clock);

/// The next position's floor, for a catalogue that was read in this state. `since` is null for the first reading.
long long nextFloor(const VolumePosition* since, const CatalogueFacts& facts, const ClockReading& clock);
