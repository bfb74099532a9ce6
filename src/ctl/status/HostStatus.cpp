#include "ctl/status/HostStatus.h"

#include "ctl/Catalogue.h"
#include "ctl/status/ProcessFacts.h"
#include "ctl/status/WalkPosition.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <future>

namespace {

constexpr const char* procFolder = "/proc";
constexpr const char* standbyMark = "/tmp/standby";
constexpr const char* watchLimitFile = "/proc/sys/fs/inotify/max_user_watches";

/// The daemon, save for its watches.
DaemonStatus readDaemon(const DaemonFinding& finding)
{
    DaemonStatus daemon;
    daemon.finding = finding;
    const ProcessFacts process(finding.process, procFolder);
    const std::optional<ProcessStat> stat = daemon.isRunning() ? process.stat() : std::nullopt;
    if (!stat) {
        if (daemon.isRunning()) // and has just ended
            daemon.finding.state = DaemonFinding::State::stopped;
        return daemon;
    }
    daemon.since = secondsSince1970(stat->startTicks, procFolder);
    daemon.memory = process.memory();
    daemon.walks = observeWalks(process.threads(), sysconf(_SC_CLK_TCK));
    if (daemon.walks.running > 0)
        daemon.walkingSince = secondsSince1970(daemon.walks.startTicks, procFolder);
    daemon.isInStandby = isInStandby(finding.process);
    return daemon;
}

/// How long the process has been there, in seconds with their fractions: btime is whole seconds.
double ageOf(long long startTicks)
{
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9
        - static_cast<double>(startTicks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

/// Of the first walks, by the watches that they add.
std::optional<WalkProgress> progressByWatches(const HostStatus& host)
{
    const DaemonStatus& daemon = host.daemon;
    if (!daemon.walks.isFirst || !daemon.watches || !host.watchLimit || !host.folders)
        return std::nullopt;
    // In a catalogue that was made since the start, rows appear with the walk.
    const bool isTotalKnown = daemon.since
        && std::none_of(host.volumes.begin(), host.volumes.end(),
            [&](const VolumeStatus& volume) { return volume.isNewSince(*daemon.since); });
    return walkProgress(
        *daemon.watches, *host.watchLimit, isTotalKnown ? host.folders : std::nullopt, ageOf(daemon.walks.startTicks));
}

std::optional<WalkPosition> readPosition(const ConfiguredVolume& volume, const std::string& folder)
{
    try {
        return walkPosition(Catalogue(volume.cataloguePath()), volume, folder);
    } catch (const Problem&) {
        return std::nullopt; // said where the volume itself is looked at
    }
}

/// Of all walks, by the folders that they read; nullopt when not each of them was caught reading one.
std::optional<WalkProgress> progressByFolders(const HostStatus& host, const std::vector<ConfiguredVolume>& volumes)
{
    const WalkObservation& walks = host.daemon.walks;
    const int wanted = std::min(walks.running, static_cast<int>(volumes.size()));
    const auto folders = foldersInHand(ProcessFacts(host.daemon.finding.process, procFolder), volumes, wanted);
    WalkPosition all;
    int found = 0;
    for (std::size_t volume = 0; volume < volumes.size(); ++volume) {
        const auto position = folders[volume] ? readPosition(volumes[volume], *folders[volume]) : std::nullopt;
        // A catalogue that a first walk fills says nothing of what is still to come.
        if (!position || (walks.isFirst && host.daemon.since && host.volumes[volume].isNewSince(*host.daemon.since)))
            continue;
        all.done += position->done;
        all.total += position->total;
        ++found;
    }
    return found == wanted ? std::optional(progressOf(all.done, all.total, ageOf(walks.startTicks))) : std::nullopt;
}

std::optional<WalkProgress> readProgress(const HostStatus& host, const std::vector<ConfiguredVolume>& volumes)
{
    if (host.daemon.walks.running == 0)
        return std::nullopt;
    const std::optional<WalkProgress> progress = progressByWatches(host);
    return progress ? progress : progressByFolders(host, volumes);
}

std::optional<long long> sumOfFolders(const std::vector<VolumeStatus>& volumes)
{
    long long sum = 0;
    for (const VolumeStatus& volume : volumes) {
        if (!volume.figures)
            return std::nullopt;
        sum += volume.figures->folders;
    }
    return sum;
}

} // namespace

std::optional<bool> isInStandby(int daemon)
{
    struct stat64 status;
    const std::string seen = ProcessFacts(daemon, procFolder).seenByProcess(standbyMark);
    if (stat64(seen.c_str(), &status) == 0)
        return true;
    // Where the daemon's root may not be looked at, its /tmp is most likely this one.
    if (errno == EACCES || errno == EPERM)
        return stat64(standbyMark, &status) == 0;
    return errno == ENOENT || errno == ENOTDIR ? std::optional(false) : std::nullopt;
}

HostStatus readHostStatus(const StatusQuestion& question, const StepProgress& progress)
{
    HostStatus host;
    host.configuration = question.configuration;
    host.time = std::time(nullptr);
    host.daemon = readDaemon(DaemonSearch(question.configuration, question.allVolumes).run());
    if (const auto limit = readKernelFile(watchLimitFile))
        host.watchLimit = std::atoll(limit->c_str());
    // The kernel takes long to list the watches of a large volume: the catalogues are read meanwhile.
    std::future<std::optional<long long>> watches;
    if (host.daemon.isRunning())
        watches = std::async(std::launch::async,
            [process = host.daemon.finding.process] { return ProcessFacts(process, procFolder).watches(); });
    const FigureCache cache;
    for (const ConfiguredVolume& volume : question.volumes)
        host.volumes.push_back(readVolumeStatus(volume, question.isDeep, cache, progress));
    if (watches.valid())
        host.daemon.watches = watches.get();
    if (question.volumes.size() == question.allVolumes.size())
        host.folders = sumOfFolders(host.volumes);
    host.daemon.progress = readProgress(host, question.volumes);
    return host;
}

std::vector<Problem> HostStatus::problems() const
{
    std::vector<Problem> all;
    switch (daemon.finding.state) {
    case DaemonFinding::State::running:
        break;
    case DaemonFinding::State::stopped:
        all.emplace_back(configuration, "The daemon of this configuration does not run",
            "Start it: 'systemctl start quarrow.service', for example");
        break;
    case DaemonFinding::State::unknown:
        all.emplace_back(configuration, daemon.finding.reason, daemon.finding.remedy);
        break;
    }
    for (const VolumeStatus& volume : volumes)
        all.insert(all.end(), volume.problems.begin(), volume.problems.end());
    return all;
}
