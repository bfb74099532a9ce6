#include "ctl/status/DaemonSearch.h"

#include "core/WithoutLinks.h"
#include "ctl/status/FileLocks.h"
#include "ctl/status/ProcessFacts.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace {

constexpr const char* daemonName = "quarrow";
constexpr const char* defaultConfiguration = "/CacheVolume/.quarrow/quarrow-host.xml"; // as in QuarrowConfig

/// The configuration that a daemon with this environment has read.
std::string configurationIn(const std::string& environment)
{
    static const std::string variable = "QUARROW_CONFIG_FILE=";
    for (std::size_t begin = 0; begin < environment.size();) {
        const std::size_t end = std::min(environment.find('\0', begin), environment.size());
        if (environment.compare(begin, variable.size(), variable) == 0)
            return environment.substr(begin + variable.size(), end - begin - variable.size());
        begin = end + 1;
    }
    return defaultConfiguration;
}

/// Whether both paths lead to one file; by name where the first cannot be looked at.
bool isSameFile(const std::string& seen, const std::string& named, const std::string& own)
{
    struct stat64 one;
    struct stat64 other;
    if (stat64(seen.c_str(), &one) != 0 || stat64(own.c_str(), &other) != 0)
        return named == own && own.compare(0, 1, "/") == 0;
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

} // namespace

struct DaemonSearch::Candidate {
    int process;
    bool isReadable;       ///< its environment was readable
    bool hasConfiguration; ///< and names this configuration
    bool hasCatalogue;
    std::string named; ///< what its environment names

    /// How well it fits; 0 for not at all.
    int rank() const { return (hasConfiguration ? 2 : 0) + (hasCatalogue ? 1 : 0); }
};

DaemonSearch::DaemonSearch(
    const std::string& path, const std::vector<ConfiguredVolume>& volumes, const std::string& procFolder)
    : proc(procFolder)
    , configuration(path)
    , owners { 0, geteuid() }
{
    struct stat64 status;
    for (const ConfiguredVolume& volume : volumes) {
        const std::string place = resolveOwnLinks(volume.cataloguePath(), LinkedFile::followed);
        if (stat64(place.c_str(), &status) != 0)
            continue;
        owners.push_back(status.st_uid);
        catalogueFiles.push_back({ status.st_dev, status.st_ino });
        if (stat64((place + "-shm").c_str(), &status) == 0)
            catalogueFiles.push_back({ status.st_dev, status.st_ino });
    }
    for (const FileLock& lock : parseFileLocks(readKernelFile(proc + "/locks").value_or(""))) {
        if (isCatalogueFile(lock.device, lock.inode))
            lockers.push_back(lock.process);
    }
}

bool DaemonSearch::isCatalogueFile(unsigned long long device, unsigned long long number) const
{
    return std::any_of(catalogueFiles.begin(), catalogueFiles.end(),
        [=](const Inode& file) { return file.device == device && file.number == number; });
}

bool DaemonSearch::isTrusted(const ProcessFacts& process) const
{
    // Anybody can start a set-user-ID program with a name and an environment of his choice. Some of them then take on
    // root's id in all three places.
    const std::vector<uid_t> users = process.users();
    return !users.empty() && !process.isSetUserProgram() && std::all_of(users.begin(), users.end(), [this](uid_t user) {
        return std::find(owners.begin(), owners.end(), user) != owners.end();
    });
}

bool DaemonSearch::hasLockedCatalogue(int process) const
{
    if (std::find(lockers.begin(), lockers.end(), process) != lockers.end())
        return true;
    // Without a log no lock is held at rest. The open files tell as well, to those who may look at them.
    const ProcessFacts facts(process, proc);
    const auto descriptors = facts.descriptors();
    return std::any_of(descriptors.begin(), descriptors.end(), [&](const auto& descriptor) {
        struct stat64 status;
        return stat64(facts.descriptorPath(descriptor.first).c_str(), &status) == 0
            && isCatalogueFile(status.st_dev, status.st_ino);
    });
}

std::optional<DaemonSearch::Candidate> DaemonSearch::examine(int process) const
{
    const ProcessFacts facts(process, proc);
    const std::optional<ProcessStat> stat = facts.stat();
    if (!stat || stat->name != daemonName || !isTrusted(facts))
        return std::nullopt;
    const std::optional<std::string> environment = facts.environment();
    if (environment.value_or("").empty() && !facts.memory())
        return std::nullopt; // it has ended meanwhile, or is about to: its memory goes first, its environment with it
    const std::string named = environment ? configurationIn(*environment) : std::string();
    const bool hasConfiguration = environment && isSameFile(facts.seenByProcess(named), named, configuration);
    return Candidate { process, environment.has_value(), hasConfiguration, hasLockedCatalogue(process), named };
}

std::vector<DaemonSearch::Candidate> DaemonSearch::candidates() const
{
    std::vector<Candidate> found;
    for (const int process : numbersIn(proc)) {
        if (const std::optional<Candidate> candidate = examine(process))
            found.push_back(*candidate);
    }
    std::sort(found.begin(), found.end(), [](const Candidate& a, const Candidate& b) {
        return a.rank() != b.rank() ? a.rank() > b.rank() : a.process < b.process;
    });
    return found;
}

DaemonFinding DaemonSearch::run() const
{
    const std::vector<Candidate> found = candidates();
    if (found.empty() || found.front().rank() == 0) {
        return withoutMatch(
            std::any_of(found.begin(), found.end(), [](const Candidate& candidate) { return !candidate.isReadable; }));
    }
    const Candidate& best = found.front();
    DaemonFinding finding;
    if (found.size() > 1 && found[1].rank() == best.rank()) {
        finding.reason = "The processes " + std::to_string(best.process) + " and " + std::to_string(found[1].process)
            + " both seem to be its daemon";
        finding.remedy = "Only one daemon may run per volume: stop the other one";
        return finding;
    }
    finding.state = DaemonFinding::State::running;
    finding.process = best.process;
    finding.hasConfiguration = best.hasConfiguration;
    if (best.isReadable && !best.hasConfiguration)
        finding.otherConfiguration = best.named;
    return finding;
}

DaemonFinding DaemonSearch::withoutMatch(bool isAnyInDoubt) const
{
    DaemonFinding finding;
    if (isAnyInDoubt) {
        finding.reason = "A daemon runs, but this user cannot see whether it is the one of this configuration";
        finding.remedy = "Run this as root";
    } else if (!ProcessFacts(1, proc).stat()) {
        finding.reason = "This user cannot see other users' processes, so it is not known whether the daemon runs";
        finding.remedy = "Run this as root";
    } else {
        finding.state = DaemonFinding::State::stopped;
    }
    return finding;
}
