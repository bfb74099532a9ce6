#include "ctl/Terminal.h"
#include "ctl/Text.h"
#include "ctl/status/HostStatus.h"
#include "ctl/status/StatusForms.h"
#include "ctl/status/TextBar.h"

#include <fmt/format.h>

#include <algorithm>

namespace {

using terminal::Colour;
using terminal::coloured;

constexpr int barWidth = 20;

std::string field(const char* name, const std::string& value) { return fmt::format("  {:<15}{}", name, value); }

std::string plural(long long number, const char* one)
{
    return withSeparators(number) + " " + one + (number == 1 ? "" : "s");
}

std::string watchText(const HostStatus& host)
{
    const std::optional<long long>& watches = host.daemon.watches;
    if (!watches)
        return "not visible to this user";
    std::string text = withSeparators(*watches);
    if (host.folders)
        text += " of " + plural(*host.folders, "folder");
    if (host.watchLimit)
        text += fmt::format(" (the kernel's limit is {})", withSeparators(*host.watchLimit));
    const bool isIdle = host.daemon.walks.running == 0;
    if (host.folders && *watches < *host.folders && isIdle && host.daemon.isInStandby != true)
        text += "; " + coloured("changes in the others show in full walks only", Colour::yellow);
    return text;
}

std::string progressText(const WalkProgress& progress)
{
    const std::string rate = fmt::format(", {} per second", withSeparators(static_cast<long long>(progress.perSecond)));
    if (!progress.total)
        return plural(progress.done, "folder") + " so far, how many there are is not known yet" + rate;
    const double part = static_cast<double>(progress.done) / static_cast<double>(*progress.total);
    std::string text = fmt::format("{}{} of {} folders ({:.0f} %){}", terminalBar(part, barWidth),
        withSeparators(progress.done), withSeparators(*progress.total), part * 100, rate);
    if (progress.secondsLeft)
        text += ", about " + duration(*progress.secondsLeft) + " left";
    return text;
}

void addWalk(std::vector<std::string>& lines, const DaemonStatus& daemon)
{
    if (daemon.walks.running == 0) {
        lines.push_back(field("walk", "none runs"));
        return;
    }
    const int count = daemon.walks.running;
    std::string text = count == 1 ? "1 volume is being walked" : fmt::format("{} volumes are being walked", count);
    if (daemon.walkingSince)
        text += ", since " + localTime(*daemon.walkingSince);
    lines.push_back(field("walk", coloured(text, Colour::blue)));
    if (daemon.progress)
        lines.push_back(field("", progressText(*daemon.progress)));
}

void addDaemon(std::vector<std::string>& lines, const HostStatus& host)
{
    const DaemonStatus& daemon = host.daemon;
    lines.push_back(coloured("Daemon", Colour::bold));
    lines.push_back(field("configuration", visible(host.configuration)));
    if (!daemon.isRunning()) {
        const bool isStopped = daemon.finding.state == DaemonFinding::State::stopped;
        lines.push_back(field(
            "state", isStopped ? coloured("not running", Colour::red) : coloured("cannot be told", Colour::yellow)));
        return;
    }
    std::string state = coloured("running", Colour::green) + fmt::format(", process {}", daemon.finding.process);
    if (daemon.since)
        state += fmt::format(", since {} ({})", localTime(*daemon.since), duration(host.time - *daemon.since));
    lines.push_back(field("state", state));
    if (!daemon.finding.otherConfiguration.empty())
        lines.push_back(field("", "with another configuration: " + visible(daemon.finding.otherConfiguration)));
    if (daemon.memory)
        lines.push_back(field("memory",
            fmt::format("{}, {} at the most", humanBytes(daemon.memory->resident), humanBytes(daemon.memory->peak))));
    lines.push_back(field("watches", watchText(host)));
    addWalk(lines, daemon);
    if (daemon.isInStandby == true)
        lines.push_back(
            field("standby", coloured("walks and purges are put off while /tmp/standby is there", Colour::yellow)));
}

std::string catalogueText(const VolumeStatus& status)
{
    if (!status.isPresent)
        return coloured("not there", Colour::red);
    if (status.isSound == false)
        return coloured("damaged", Colour::red);
    if (!status.figures)
        return coloured("cannot be read", Colour::red);
    return coloured(status.isSound ? "sound" : "readable", Colour::green) + ", " + humanBytes(status.bytes);
}

void addFigures(std::vector<std::string>& lines, const CatalogueFigures& figures)
{
    const CatalogueFigures::Kind all = figures.all();
    lines.push_back(field("folders", withSeparators(figures.folders)));
    lines.push_back(field("files", fmt::format("{}, {}", withSeparators(all.files), humanBytes(all.bytes))));
    for (std::size_t i = 0; i < figures.kinds.size(); ++i) {
        const CatalogueFigures::Kind& kind = figures.kinds[i];
        const double part = all.bytes > 0 ? static_cast<double>(kind.bytes) / static_cast<double>(all.bytes) : 0;
        lines.push_back(fmt::format("    {:<13}{:>13}  {:>12}  {}", categoryName(static_cast<long long>(i) + 1),
            withSeparators(kind.files), humanBytes(kind.bytes), terminalBar(part, barWidth)));
        lines.back().erase(lines.back().find_last_not_of(' ') + 1);
    }
    lines.push_back(field("deleted",
        fmt::format("{} and {} wait for the purge", plural(figures.deletedFiles, "file"),
            plural(figures.deletedFolders, "folder"))));
    lines.push_back(
        field("newest change", figures.newestChange != 0 ? localTime(figures.newestChange) : std::string("none")));
}

void addVolume(std::vector<std::string>& lines, const VolumeStatus& status)
{
    lines.emplace_back();
    lines.push_back(coloured("Volume " + visible(status.volume.name), Colour::bold));
    lines.push_back(field("root", visible(status.volume.root)));
    lines.push_back(field("catalogue", catalogueText(status)));
    if (status.figures)
        addFigures(lines, *status.figures);
    lines.push_back(field("last purge",
        !status.purge.isKnown        ? "not known"
            : status.purge.lastPurge ? localTime(*status.purge.lastPurge)
                                     : "none yet"));
}

} // namespace

std::vector<std::string> statusLines(const HostStatus& host)
{
    std::vector<std::string> lines;
    addDaemon(lines, host);
    for (const VolumeStatus& volume : host.volumes)
        addVolume(lines, volume);
    return lines;
}
