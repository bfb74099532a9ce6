#pragma once

#include "ctl/status/DaemonSearch.h"
#include "ctl/status/VolumeStatus.h"
#include "ctl/status/WalkObservation.h"

#include <optional>
#include <string>
#include <vector>

/// How the daemon of a configuration is, by what the kernel shows of it. What this user may not see is nullopt.
struct DaemonStatus {
    DaemonFinding finding;
    // Only while it runs:
    std::optional<long long> since; ///< seconds since 1970
    std::optional<MemoryUse> memory;
    WalkObservation walks;
    std::optional<long long> walkingSince; ///< seconds since 1970, while a walk runs
    std::optional<long long> watches;
    std::optional<bool> isInStandby;
    std::optional<WalkProgress> progress; ///< of the walks that run

    bool isRunning() const { return finding.state == DaemonFinding::State::running; }
};

/// What `quarrowctl status` shows, whatever the form.
struct HostStatus {
    std::string configuration;
    long long time = 0; ///< seconds since 1970
    DaemonStatus daemon;
    std::optional<long long> watchLimit; ///< the kernel's, per user
    /// Live folders of all volumes; nullopt when not all of them were looked at, or not all can be read.
    std::optional<long long> folders;
    std::vector<VolumeStatus> volumes;

    /// All there is to complain about, the volumes' own problems last.
    std::vector<Problem> problems() const;
};

struct StatusQuestion {
    std::string configuration;
    std::vector<ConfiguredVolume> allVolumes; ///< by these the daemon is known
    std::vector<ConfiguredVolume> volumes;    ///< those to look at
    bool isDeep = false;
};

/// Looks at everything. Never throws a Problem.
HostStatus readHostStatus(const StatusQuestion& question, const StepProgress& progress);

/// Where the daemon would look for the mark of standby, as far as this user can see: the daemon may have another /tmp.
std::optional<bool> isInStandby(int daemon);
