#include "ctl/HostConfiguration.h"

#include "config/QuarrowConfig.h"
#include "ctl/ConfigurationPlace.h"
#include "ctl/Problem.h"

#include <libxml/xmlerror.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

std::string ConfiguredVolume::cataloguePath() const { return root + "/.quarrow/quarrow.db"; }

std::string ConfiguredVolume::stateFilePath() const { return root + "/.quarrow/quarrow-volume.xml"; }

void useConfiguration(const std::string& path) { setenv("QUARROW_CONFIG_FILE", path.c_str(), 1); }

std::string configurationPath() { return QuarrowConfig::getInstance()->getConfigFilePath(); }

static void printNothing(void*, const char*, ...) { }

std::vector<ConfiguredVolume> readConfiguredVolumes()
{
    // The daemon's class logs and prints what is wrong; here that is said by this program, to whoever called it.
    setlogmask(LOG_MASK(LOG_EMERG));
    xmlSetGenericErrorFunc(nullptr, printNothing);
    const std::string path = configurationPath();
    if (isNoFile(configurationPlace(path)))
        throw Problem(path, noFileReason, noFileRemedy);
    if (access(path.c_str(), R_OK) != 0) {
        const std::string reason = std::strerror(errno);
        throw Problem(path, "The configuration cannot be read: " + reason,
            "Name another one with --config or QUARROW_CONFIG_FILE");
    }
    QuarrowConfig* const config = QuarrowConfig::getInstance();
    if (!config->load())
        throw Problem(path, "The daemon refuses this configuration", "'quarrowctl check' says why");
    std::vector<ConfiguredVolume> volumes;
    for (const auto& [name, root] : config->getQuarrowVolumes()) {
        ConfiguredVolume volume { name, root, {}, {} };
        if (!volume.root.empty() && volume.root.back() == '/')
            volume.root.pop_back();
        config->getCrawlPaths(name, volume.crawlPaths);
        config->getExcludePaths(name, volume.excludePaths);
        volumes.push_back(volume);
    }
    return volumes;
}

std::vector<ConfiguredVolume> readConfiguredVolumes(const std::vector<std::string>& names)
{
    return chooseVolumes(readConfiguredVolumes(), names);
}

std::vector<ConfiguredVolume> chooseVolumes(
    const std::vector<ConfiguredVolume>& all, const std::vector<std::string>& names)
{
    if (names.empty())
        return all;
    std::vector<ConfiguredVolume> chosen;
    for (const std::string& name : names) {
        const auto isIt = [&name](const ConfiguredVolume& volume) { return volume.name == name; };
        if (std::any_of(chosen.begin(), chosen.end(), isIt))
            continue;
        const auto found = std::find_if(all.begin(), all.end(), isIt);
        if (found == all.end())
            throw Problem(configurationPath(), "There is no volume '" + name + "'", "'quarrowctl check' lists them");
        chosen.push_back(*found);
    }
    return chosen;
}
