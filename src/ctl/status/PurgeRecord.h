#pragma once

#include <optional>
#include <string>

/// When a volume was purged, by its state file.
struct PurgeRecord {
    bool isKnown = false;               ///< false: there is no such file, or it cannot be read, or does not say when
    std::optional<long long> lastPurge; ///< seconds since 1970; nullopt when there was none
};

/// Reads the state file, and does not make it where there is none, as the daemon's own class does.
PurgeRecord readPurgeRecord(const std::string& stateFile);
