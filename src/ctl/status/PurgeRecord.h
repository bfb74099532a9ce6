#pragma once

#include <optional>
#include <string>

/// When a volume was purged, by its state file.
struct PurgeRecord {
    bool isKnown = false;               ///< false: there is no such file, or it cannot be read
    std::optional<long long> lastPurge; ///< seconds since 1970; nullopt when there was none
};

/// Reads the state file, and does not make it where there is none, as the daemon's own class does. `threshold`:
/// purge_threshold, in seconds. The file holds the time that lies a threshold before the purge.
PurgeRecord readPurgeRecord(const std::string& stateFile, int threshold);
