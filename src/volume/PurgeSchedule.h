#pragma once

/// When rows marked deleted are due to be removed: one threshold after the latest purge, the first of a volume two
/// thresholds after time 0. All in seconds.
///
/// Sums are of 32 bits that wrap and are then compared as signed: what the state files in the field were written with.
class PurgeSchedule {
public:
    explicit PurgeSchedule(int seconds);

    /// `recorded`: the time that the state file has.
    bool isDue(int now, int recorded) const;
    /// The time to record after a purge.
    int timeToRecord(int now) const;

private:
    const unsigned threshold;
};
