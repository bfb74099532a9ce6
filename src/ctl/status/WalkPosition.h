#pragma once

#include "ctl/HostConfiguration.h"

#include <optional>
#include <string>
#include <vector>

class Catalogue;
class ProcessFacts;

/// How far a walk of one volume has come.
struct WalkPosition {
    long long done = 0;  ///< folders that it has come through
    long long total = 0; ///< live folders that the catalogue has of what is walked
};

/// Where the walk of the volume is when it reads `folder`, a path of the volume. It goes level by level, in the order
/// of the folders' listings, below one crawl path after the other. nullopt when it does not come there. Throws a
/// Problem.
std::optional<WalkPosition> walkPosition(
    const Catalogue& catalogue, const ConfiguredVolume& volume, const std::string& folder);

/// Which folder of each volume the process has open, as a path of the volume: a walk holds the folder that it reads.
/// The catalogue's own folder is none. Looks a few times within a tenth of a second, until `wanted` volumes have one.
/// nullopt for a volume where none was seen.
std::vector<std::optional<std::string>> foldersInHand(
    const ProcessFacts& process, const std::vector<ConfiguredVolume>& volumes, int wanted);
