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

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace {

std::optional<long long> numberIn(const std::string& path)
{
    std::ifstream file(path);
    long long number = 0;
    return file >> number ? std::optional<long long>(number) : std::nullopt;
}

std::optional<long long> lowest(const std::optional<long long>& one, const std::optional<long long>& other)
{
    if (!one || !other)
        return one ? one : other;
    return std::min(*one, *other);
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
    const std::optional<long long> limit = lowest(numberIn(machine.watchLimit), numberIn(machine.watchLimitHere));
    if (!limit)
        return;
    const FolderCount count = countFolders(reading);
    if (count.folders <= *limit)
        return;
    FindingsAbout(findings, "fs.inotify.max_user_watches")
        .warn(0,
            std::string("The catalogues list ") + (count.isWhole ? "" : "at least ") + withSeparators(count.folders)
                + " folders, but a user may have only " + withSeparators(*limit)
                + " watches. The daemon sees changes in the other folders in full walks only",
            "Write 'fs.inotify.max_user_watches = " + std::to_string(2 * count.folders)
                + "' into /etc/sysctl.d/quarrow.conf, run 'sysctl --system' and restart the daemon");
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
