#pragma once

#include <list>
#include <string>
#include <vector>

/// One volume as the host configuration names it.
struct ConfiguredVolume {
    std::string name;
    std::string root; ///< absolute, without a trailing slash
    std::list<std::string> crawlPaths;
    std::list<std::string> excludePaths;

    std::string cataloguePath() const;
    std::string stateFilePath() const;
};

/// From here on the configuration is this file, as if QUARROW_CONFIG_FILE named it. Before anything reads it.
void useConfiguration(const std::string& path);

/// Where the configuration is: found as the daemon finds it.
std::string configurationPath();

/// Reads the configuration with the daemon's own class and returns its volumes, by name. Throws a Problem when the
/// daemon would refuse it. At most once in a process: a second reading would add to the first.
std::vector<ConfiguredVolume> readConfiguredVolumes();

/// The same, less those that chooseVolumes() leaves out.
std::vector<ConfiguredVolume> readConfiguredVolumes(const std::vector<std::string>& names);

/// Those of `all` whose names are in `names`, in that order; all of them when `names` is empty. Throws a Problem when
/// there is no volume of a given name.
std::vector<ConfiguredVolume> chooseVolumes(
    const std::vector<ConfiguredVolume>& all, const std::vector<std::string>& names);
