#pragma once

#include "ctl/HostConfiguration.h"

#include <optional>
#include <string>
#include <vector>

/// A volume that is searched, and where in it.
struct SearchedVolume {
    ConfiguredVolume volume;
    /// The folder, relative to the root, below which to search; empty for the root. Nothing: everywhere, the root
    /// included.
    std::optional<std::string> under;
};

/// The volumes, each searched everywhere.
std::vector<SearchedVolume> everywhere(const std::vector<ConfiguredVolume>& volumes);

/// Those of the volumes that have something below the folder, a path that begins where this program runs unless it
/// begins with a slash. It need not exist (any more). Links in it, or in the volumes' roots, are followed where that is
/// what leads to a volume. Throws a Problem when it is in none of the volumes and none of them is in it.
std::vector<SearchedVolume> below(const std::string& folder, const std::vector<ConfiguredVolume>& volumes);
