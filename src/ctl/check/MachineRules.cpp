#include "ctl/check/MachineRules.h"

#include "ctl/Catalogue.h"
#include "ctl/HostConfiguration.h"
#include "ctl/Problem.h"
#include "ctl/Query.h"
#include "ctl/Text.h"
#include "ctl/check/Findings.h"
#include "ctl/check/HostReading.h"
#include "ctl/check/Machine.h"
#include "ctl/check/MimeTableRules.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

namespace {

std::optional<long long> numberIn(const std::string& path)
{
    std::ifstream file(path);
    long long number = 0;
    return file >> number ? std::optional<long long>(number) : std::nullopt;
}

struct Limit {
    std::string setting; ///< its name
    long long watches;
};

/// The limits that the kernel keeps to, the lowest first. Outside of a user namespace both files show the same one.
std::vector<Limit> watchLimits(const Machine& machine)
{
    const std::optional<long long> general = numberIn(machine.watchLimit);
    const std::optional<long long> here = numberIn(machine.watchLimitHere);
    std::vector<Limit> limits;
    if (here && (!general || *here < *general))
        limits.push_back({ "user.max_inotify_watches", *here });
    if (general)
        limits.push_back({ "fs.inotify.max_user_watches", *general });
    return limits;
}

/// What raises the limits that are too low.
std::string raisingLimits(const std::vector<Limit>& limits, long long folders)
{
    std::string settings;
    for (const Limit& limit : limits) {
        if (limit.watches < folders)
            settings += (settings.empty() ? "'" : " and '") + limit.setting + " = " + std::to_string(2 * folders) + "'";
    }
    const bool isOfNamespace = limits.front().setting.compare(0, 5, "user.") == 0;
    return "Write " + settings + " into /etc/sysctl.d/quarrow.conf, run 'sysctl --system' and restart the daemon"
        + (isOfNamespace ? ". The setting user.max_inotify_watches belongs to the user namespace, such as a container,"
                           " and is changed inside it"
                         : "");
}

struct FolderCount {
    long long folders = 0;
    bool isWhole = true; ///< every volume's catalogue could be counted
};

/// How many folders the catalogues list, each of which the daemon watches.
FolderCount countFolders(const HostReading& reading)
{
    FolderCount count;
    for (const auto& [name, volume] : reading.volumes) {
        const std::string root = volume.rootPath();
        try {
            if (!root.empty() && root.front() != '/')
                throw Problem(root, "This is no absolute path");
            const Catalogue catalogue(ConfiguredVolume { name, root, {}, {} }.cataloguePath());
            Query query(catalogue, "select count(*) from Folders where is_deleted = 0");
            query.next();
            count.folders += query.number(0);
        } catch (const Problem&) {
            count.isWhole = false; // not made yet, most often; 'status' tells of the catalogues
        }
    }
    return count;
}

void checkWatches(const Machine& machine, const HostReading& reading, Findings& findings)
{
    const std::vector<Limit> limits = watchLimits(machine);
    if (limits.empty())
        return;
    const FolderCount count = countFolders(reading);
    const Limit& lowest = limits.front();
    if (count.folders <= lowest.watches)
        return;
    FindingsAbout(findings, lowest.setting)
        .warn(0,
            std::string("The catalogues list ") + (count.isWhole ? "" : "at least ") + withSeparators(count.folders)
                + " folders, but a user may have only " + withSeparators(lowest.watches)
                + " watches. The daemon sees changes in the other folders in full walks only",
            raisingLimits(limits, count.folders));
}

void checkInstances(const Machine& machine, Findings& findings)
{
    const int error = machine.tryInotify();
    if (error == 0)
        return;
    const FindingsAbout found(findings, "fs.inotify.max_user_instances");
    if (error != EMFILE) {
        found.warn(0, std::string("inotify cannot be used: ") + std::strerror(error), "Use a kernel that has inotify");
        return;
    }
    const std::optional<long long> limit = numberIn(machine.instanceLimit);
    found.warn(0,
        "This user has no inotify instance left" + (limit ? " of " + withSeparators(*limit) : std::string())
            + ". A daemon that is started as this user aborts",
        "Write a higher limit into /etc/sysctl.d/quarrow.conf and run 'sysctl --system', or end programs that hold one");
}

void checkStandby(const Machine& machine, Findings& findings)
{
    struct stat64 status;
    if (stat64(machine.standbyMarker.c_str(), &status) == 0)
        FindingsAbout(findings, machine.standbyMarker)
            .warn(0, "The volumes are in standby: no full walk starts, and no purge runs",
                "Remove this file to end the standby");
}

} // namespace

void checkMachine(const Machine& machine, const HostReading& reading, Findings& findings)
{
    checkMimeTable(FindingsAbout(findings, machine.mimeTable), machine.mimeTable);
    checkWatches(machine, reading, findings);
    checkInstances(machine, findings);
    checkStandby(machine, findings);
}
