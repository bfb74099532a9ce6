#pragma once

/// When rows marked deleted are due to be removed: two thresholds after the recorded time. The time recorded at a purge
/// is one threshold before it, so purges are one threshold apart. A new volume's recorded time is 0. All in seconds.
///
/// Sums have 32 bits, wrap, and are compared as signed numbers: the times in existing state files were made that way.
class PurgeSchedule {
public:
    explicit PurgeSchedule(int seconds);

    /// `recorded`: the time in the state file.
    bool isDue(int now, int recorded) const;
    /// The time to record after a purge.
    int timeToRecord(int now) const;

private:
    const unsigned threshold;
};
