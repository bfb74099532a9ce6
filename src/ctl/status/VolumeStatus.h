#pragma once

#include "ctl/HostConfiguration.h"
#include "ctl/Problem.h"
#include "ctl/status/CatalogueFigures.h"
#include "ctl/status/FigureCache.h"
#include "ctl/status/PurgeRecord.h"

#include <optional>
#include <string>
#include <vector>

/// How one volume and its catalogue are.
struct VolumeStatus {
    ConfiguredVolume volume;
    bool isPresent = false;                  ///< there is something in the catalogue's place
    long long bytes = 0;                     ///< of the catalogue with its log
    std::optional<CatalogueFigures> figures; ///< nullopt when it cannot be read
    std::optional<bool> isSound;             ///< nullopt when that was not checked
    std::vector<Problem> problems;           ///< why something cannot be read, or is not sound
    PurgeRecord purge;

    /// Whether no row was written before that time, so that the catalogue may be a new one, and incomplete.
    bool isNewSince(long long seconds) const { return figures && figures->oldestFolder >= seconds; }
};

/// What is told about the work while it goes on: a name of the step, and how much of it is done, from 0 to 1; negative
/// when that is not known.
using StepProgress = std::function<void(const std::string& step, double done)>;

/// Looks at a volume. `isDeep`: reads the whole catalogue to see whether it is sound. Never throws a Problem, it is in
/// the result.
VolumeStatus readVolumeStatus(
    const ConfiguredVolume& volume, bool isDeep, const FigureCache& cache, const StepProgress& progress);
