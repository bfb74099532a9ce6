#include "ctl/Text.h"
#include "ctl/status/HostStatus.h"
#include "ctl/status/StatusForms.h"

#include <fmt/format.h>

namespace {

/// A label's value: UTF-8 always, since the whole text has to be.
std::string escaped(const std::string& value)
{
    std::string text;
    for (const char c : isUtf8(value) ? value : visible(value)) {
        if (c == '\n')
            text += "\\n";
        else if (c == '"' || c == '\\')
            text += std::string("\\") + c;
        else
            text += c;
    }
    return text;
}

std::string label(const std::string& name, const std::string& value)
{
    return fmt::format("{}=\"{}\"", name, escaped(value));
}

/// The text of a set of metrics, one family after the other.
class MetricsText {
public:
    /// Begins a family. Its header appears with its first sample.
    void family(const std::string& familyName, const std::string& help)
    {
        name = familyName;
        header = fmt::format("# HELP {0} {1}\n# TYPE {0} gauge\n", name, help);
    }
    void sample(const std::string& labels, long long value)
    {
        text += header;
        header.clear();
        text
            += labels.empty() ? fmt::format("{} {}\n", name, value) : fmt::format("{}{{{}}} {}\n", name, labels, value);
    }
    void sample(const std::string& labels, const std::optional<long long>& value)
    {
        if (value)
            sample(labels, *value);
    }
    std::string ended() const { return text + "# EOF\n"; }

private:
    std::string name;
    std::string header;
    std::string text;
};

void addDaemon(MetricsText& metrics, const HostStatus& host)
{
    const DaemonStatus& daemon = host.daemon;
    metrics.family("quarrow_daemon_up", "Whether the daemon of this configuration runs.");
    if (daemon.finding.state != DaemonFinding::State::unknown)
        metrics.sample("", daemon.isRunning() ? 1 : 0);
    if (host.watchLimit) {
        metrics.family("quarrow_inotify_watch_limit", "How many folders the kernel lets a user watch.");
        metrics.sample("", host.watchLimit);
    }
    if (!daemon.isRunning())
        return;
    metrics.family("quarrow_daemon_start_time_seconds", "When the daemon was started, since 1970.");
    metrics.sample("", daemon.since);
    if (daemon.memory) {
        metrics.family("quarrow_daemon_resident_memory_bytes", "Memory that the daemon has now.");
        metrics.sample("", daemon.memory->resident);
        metrics.family("quarrow_daemon_peak_resident_memory_bytes", "The most memory that the daemon has had.");
        metrics.sample("", daemon.memory->peak);
    }
    metrics.family("quarrow_daemon_watches", "Folders that the daemon watches.");
    metrics.sample("", daemon.watches);
    metrics.family("quarrow_daemon_walks", "Full walks that run.");
    metrics.sample("", daemon.walks.running);
    metrics.family("quarrow_daemon_standby", "Whether walks and purges are put off.");
    if (daemon.isInStandby)
        metrics.sample("", *daemon.isInStandby ? 1 : 0);
}

std::string volumeLabel(const VolumeStatus& status) { return label("volume", status.volume.name); }

/// A family with at most one sample per volume.
template <typename Value>
void addPerVolume(
    MetricsText& metrics, const HostStatus& host, const std::string& name, const std::string& help, const Value& value)
{
    metrics.family("quarrow_volume_" + name, help);
    for (const VolumeStatus& status : host.volumes)
        metrics.sample(volumeLabel(status), std::optional<long long>(value(status)));
}

/// A family of figures of the catalogue.
template <typename Value>
void addFigure(
    MetricsText& metrics, const HostStatus& host, const std::string& name, const std::string& help, const Value& value)
{
    addPerVolume(metrics, host, name, help, [&value](const VolumeStatus& status) {
        return status.figures ? std::optional<long long>(value(*status.figures)) : std::nullopt;
    });
}

template <typename Value>
void addPerCategory(
    MetricsText& metrics, const HostStatus& host, const std::string& name, const std::string& help, const Value& value)
{
    metrics.family("quarrow_volume_" + name, help);
    for (const VolumeStatus& status : host.volumes) {
        for (std::size_t i = 0; status.figures && i < status.figures->kinds.size(); ++i) {
            const std::string category = label("category", categoryName(static_cast<long long>(i) + 1));
            metrics.sample(volumeLabel(status) + "," + category, value(status.figures->kinds[i]));
        }
    }
}

void addVolumes(MetricsText& metrics, const HostStatus& host)
{
    using Figures = CatalogueFigures;
    addPerVolume(metrics, host, "readable", "Whether the catalogue can be read.",
        [](const VolumeStatus& status) { return status.figures ? 1 : 0; });
    addPerVolume(metrics, host, "sound", "Whether the catalogue is undamaged, when that was checked.",
        [](const VolumeStatus& status) { return status.isSound; });
    addPerVolume(metrics, host, "catalogue_bytes", "Size of the catalogue with its log.",
        [](const VolumeStatus& status) { return status.isPresent ? std::optional(status.bytes) : std::nullopt; });
    addFigure(metrics, host, "folders", "Folders that are there.", [](const Figures& all) { return all.folders; });
    addPerCategory(metrics, host, "files", "Files that are there.", [](const Figures::Kind& k) { return k.files; });
    addPerCategory(metrics, host, "file_bytes", "Size of the files that are there.",
        [](const Figures::Kind& k) { return k.bytes; });
    addFigure(metrics, host, "deleted_folders", "Rows of deleted folders, which the purge will remove.",
        [](const Figures& all) { return all.deletedFolders; });
    addFigure(metrics, host, "deleted_files", "Rows of deleted files, which the purge will remove.",
        [](const Figures& all) { return all.deletedFiles; });
    addFigure(metrics, host, "newest_change_timestamp_seconds", "When a row was last written, since 1970; 0 for never.",
        [](const Figures& all) { return all.newestChange; });
    addPerVolume(metrics, host, "last_purge_timestamp_seconds", "When deleted rows were last purged, since 1970.",
        [](const VolumeStatus& status) { return status.purge.lastPurge; });
}

} // namespace

std::string statusMetrics(const HostStatus& host)
{
    MetricsText metrics;
    addDaemon(metrics, host);
    addVolumes(metrics, host);
    return metrics.ended();
}
