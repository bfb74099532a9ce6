#pragma once

#include "ctl/HostConfiguration.h"
#include "ctl/Problem.h"

#include <string>
#include <vector>

/// What systemd has to know of the configured volumes, as a drop-in for the daemon's unit: the daemon starts after they
/// are mounted and not without them, and of all file systems it may write theirs alone.
class UnitDropIn {
public:
    /// `configuration` is the path of the file that names the volumes.
    UnitDropIn(const std::string& configuration, const std::vector<ConfiguredVolume>& volumes);

    std::string text() const;

    /// Why a volume cannot be named in a unit, a message for each. ProtectSystem then stays as in the unit, or the
    /// daemon could not write this volume.
    const std::vector<Problem>& problems() const { return unnamed; }

private:
    const std::string source;
    std::vector<std::string> places; ///< what has to be mounted, and may be written
    std::vector<Problem> unnamed;
};
