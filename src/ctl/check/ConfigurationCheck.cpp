#include "ctl/check/ConfigurationCheck.h"

#include "config/QuarrowConfig.h"
#include "config/XmlDocument.h"
#include "ctl/ConfigurationPlace.h"
#include "ctl/check/ElementRules.h"
#include "ctl/check/MachineRules.h"
#include "ctl/check/ParserMessages.h"
#include "ctl/check/PathRules.h"
#include "ctl/check/SettingRules.h"
#include "ctl/check/ValueRules.h"
#include "ctl/check/VolumeOverlaps.h"
#include "ctl/check/VolumeRules.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>

namespace {

constexpr const char* nameAnother = "Name another one, as the argument, with --config or by QUARROW_CONFIG_FILE";

/// Why the file cannot be opened; empty when it can.
std::string failureToOpen(const std::string& path)
{
    struct stat64 status;
    if (stat64(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
        return std::strerror(EISDIR);
    const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        return std::strerror(errno);
    close(descriptor);
    return "";
}

std::vector<std::string> textsOf(const std::vector<TextAt>& places)
{
    std::vector<std::string> texts;
    texts.reserve(places.size());
    for (const TextAt& place : places)
        texts.push_back(place.text);
    return texts;
}

/// Whether the reading has what the daemon has.
bool isEqual(const HostReading& reading, QuarrowConfig& config)
{
    const TextAt& threshold = reading.purgeThreshold;
    if (threshold.line != 0 && numberIn(threshold.text.c_str()) != config.getPurgeThreshold())
        return false;
    const auto& volumes = config.getQuarrowVolumes();
    return volumes.size() == reading.volumes.size()
        && std::all_of(volumes.begin(), volumes.end(), [&](const std::pair<const std::string, std::string>& volume) {
               const auto found = reading.volumes.find(volume.first);
               std::list<std::string> crawlPaths;
               std::list<std::string> excludePaths;
               config.getCrawlPaths(volume.first, crawlPaths);
               config.getExcludePaths(volume.first, excludePaths);
               return found != reading.volumes.end() && found->second.root.text == volume.second
                   && textsOf(found->second.crawlPaths) == std::vector(crawlPaths.begin(), crawlPaths.end())
                   && textsOf(found->second.excludePaths) == std::vector(excludePaths.begin(), excludePaths.end());
           });
}

} // namespace

ConfigurationCheck::ConfigurationCheck(const Machine& machine)
{
    QuarrowConfig config;
    file = config.getConfigFilePath();
    if (file.empty()) {
        FindingsAbout(all, "QUARROW_CONFIG_FILE").refuse(0, "It is set, but empty", nameAnother);
        return;
    }
    const FindingsAbout found(all, file);
    if (isNoFile(configurationPlace(file))) {
        checked = false;
        found.leaveUnchecked(noFileReason, noFileRemedy);
        return;
    }
    {
        const ParserMessages unheard;
        accepted = config.load();
    }
    threshold = config.getPurgeThreshold();
    explain();
    consistent = accepted != all.hasRefusal() && (!accepted || isEqual(read, config));
    if (!consistent) {
        checked = false;
        accepted = false;
        all.clear();
        found.leaveUnchecked("The file was changed while it was read", "Check it again");
        return;
    }
    all.sortByLine();
    if (accepted)
        checkMachine(machine, read, all);
}

void ConfigurationCheck::explain()
{
    const FindingsAbout found(all, file);
    ParserMessages messages;
    const XmlDocument document(file, XmlDocument::trusted);
    if (!document.isParsed()) {
        refuseUnparsed(messages, found);
        return;
    }
    for (const ParserMessages::Message& message : messages.list())
        found.warn(
            message.line, "The XML parser says: " + message.text, "Correct it, though the daemon reads the file");
    read = HostReading(document.root());
    checkElements(document.root(), found);
    checkValues(document.root(), found);
    checkRequirements(read, found);
    checkSettings(read, found);
    checkVolumes(read, found);
    checkOverlaps(read, found);
    checkPaths(read, found);
}

void ConfigurationCheck::refuseUnparsed(const ParserMessages& messages, const FindingsAbout& found)
{
    const std::string failure = failureToOpen(configurationPlace(file));
    if (!failure.empty()) {
        found.refuse(0, "It cannot be read: " + failure, nameAnother);
        return;
    }
    const auto fatal = std::find_if(messages.list().begin(), messages.list().end(),
        [](const ParserMessages::Message& message) { return message.isFatal; });
    if (fatal != messages.list().end())
        found.refuse(fatal->line, "This is no XML: " + fatal->text,
            "Correct it; 'xmllint --noout FILE' shows the place in the line");
    else
        found.refuse(0, "This is no XML", "Correct it");
}
