#include "ctl/Text.h"
#include "ctl/status/HostStatus.h"
#include "ctl/status/StatusForms.h"

#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

template <typename Value>
Json orNull(const std::optional<Value>& value)
{
    return value ? Json(*value) : Json();
}

Json problemsJson(const std::vector<Problem>& problems)
{
    Json list = Json::array();
    for (const Problem& problem : problems)
        list.push_back(problem.what());
    return list;
}

Json walkJson(const DaemonStatus& daemon)
{
    if (daemon.walks.running == 0)
        return {};
    Json walk = { { "running", daemon.walks.running }, { "since", orNull(daemon.walkingSince) },
        { "first", daemon.walks.isFirst }, { "folders_done", nullptr }, { "folders_total", nullptr },
        { "folders_per_second", nullptr }, { "seconds_left", nullptr } };
    if (daemon.progress) {
        walk["folders_done"] = daemon.progress->done;
        walk["folders_total"] = orNull(daemon.progress->total);
        walk["folders_per_second"] = daemon.progress->perSecond;
        walk["seconds_left"] = orNull(daemon.progress->secondsLeft);
    }
    return walk;
}

Json daemonJson(const HostStatus& host)
{
    static constexpr const char* states[] = { "running", "stopped", "unknown" };
    const DaemonStatus& daemon = host.daemon;
    Json object = { { "state", states[static_cast<int>(daemon.finding.state)] } };
    if (!daemon.isRunning())
        return object;
    object["pid"] = daemon.finding.process;
    object["known_by"] = daemon.finding.hasConfiguration ? "configuration" : "catalogue";
    object["since"] = orNull(daemon.since);
    object["resident_bytes"] = daemon.memory ? Json(daemon.memory->resident) : Json();
    object["peak_resident_bytes"] = daemon.memory ? Json(daemon.memory->peak) : Json();
    object["standby"] = orNull(daemon.isInStandby);
    object["watches"] = orNull(daemon.watches);
    object["walk"] = walkJson(daemon);
    return object;
}

Json figuresJson(const CatalogueFigures& figures)
{
    Json files = { { "count", figures.all().files }, { "bytes", figures.all().bytes } };
    for (std::size_t i = 0; i < figures.kinds.size(); ++i) {
        const CatalogueFigures::Kind& kind = figures.kinds[i];
        files[categoryName(static_cast<long long>(i) + 1)] = { { "count", kind.files }, { "bytes", kind.bytes } };
    }
    return { { "folders", figures.folders }, { "files", files },
        { "deleted", { { "folders", figures.deletedFolders }, { "files", figures.deletedFiles } } },
        { "newest_change", figures.newestChange != 0 ? Json(figures.newestChange) : Json() } };
}

Json volumeJson(const VolumeStatus& status)
{
    Json object = Json::object();
    setBytes(object, "name", status.volume.name);
    setBytes(object, "root", status.volume.root);
    setBytes(object, "catalogue", status.volume.cataloguePath());
    object["present"] = status.isPresent;
    object["readable"] = status.figures.has_value();
    object["sound"] = orNull(status.isSound);
    object["bytes"] = status.bytes;
    object["last_purge"] = orNull(status.purge.lastPurge);
    if (status.figures)
        object.update(figuresJson(*status.figures));
    object["problems"] = problemsJson(status.problems);
    return object;
}

} // namespace

std::string statusJson(const HostStatus& host)
{
    Json object = Json::object();
    setBytes(object, "configuration", host.configuration);
    object["time"] = host.time;
    object["daemon"] = daemonJson(host);
    object["watch_limit"] = orNull(host.watchLimit);
    object["folders"] = orNull(host.folders);
    object["volumes"] = Json::array();
    for (const VolumeStatus& volume : host.volumes)
        object["volumes"].push_back(volumeJson(volume));
    object["problems"] = problemsJson(host.problems());
    return jsonText(object);
}
