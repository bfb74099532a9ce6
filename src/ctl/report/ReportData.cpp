#include "ctl/report/ReportData.h"

#include "ctl/HostConfiguration.h"
#include "ctl/Text.h"
#include "ctl/report/FolderSelection.h"
#include "ctl/report/VolumeSummary.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <ctime>
#include <unistd.h>

using Json = nlohmann::ordered_json;

namespace {

std::string hostName()
{
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return visible(name);
}

Json jsonOf(const std::map<std::string, CategoryTotals>& months)
{
    Json list = Json::array();
    for (const auto& [month, totals] : months)
        list.push_back(Json::array({ month, totals.allFiles(), totals.bytes }));
    return list;
}

Json jsonOf(const std::vector<ListedFile>& files)
{
    Json list = Json::array();
    for (const ListedFile& file : files)
        list.push_back({ { "path", visible(file.path) }, { "size", file.size }, { "time", localTime(file.time) } });
    return list;
}

/// A row per folder, without keys: there are many.
Json jsonOf(const std::vector<ShownFolder>& folders)
{
    Json list = Json::array();
    for (const ShownFolder& folder : folders) {
        list.push_back(Json::array({ folder.parent, visible(folder.name), folder.category, folder.files, folder.bytes,
            folder.otherFolders, folder.otherFiles, folder.otherBytes }));
    }
    return list;
}

Json jsonOf(const VolumeSummary::Duplicates& duplicates)
{
    Json list = Json::array();
    for (const VolumeSummary::Duplicates::Group& group : duplicates.largest) {
        Json paths = Json::array();
        for (const std::string& path : group.paths)
            paths.push_back(visible(path));
        list.push_back({ { "name", visible(group.name) }, { "size", group.size }, { "files", group.files },
            { "wasted", group.wasted }, { "paths", paths } });
    }
    return { { "groups", duplicates.groups }, { "files", duplicates.files }, { "wasted", duplicates.wasted },
        { "list", list } };
}

Json head(const ConfiguredVolume& volume)
{
    return { { "name", visible(volume.name) }, { "root", visible(volume.root) } };
}

} // namespace

ReportData::ReportData() = default;

ReportData::~ReportData() = default;

void ReportData::add(const ConfiguredVolume& volume, const VolumeSummary& summary, std::size_t folderLimit)
{
    Json data = head(volume);
    data["newestChange"] = summary.newestChange == 0 ? "" : localTime(summary.newestChange);
    data["folders"] = summary.folders;
    data["files"] = summary.totals.files;
    data["bytes"] = summary.totals.bytes;
    data["negativeSizes"] = summary.negativeSizes;
    data["arrived"] = jsonOf(summary.arrived.byName());
    data["modified"] = jsonOf(summary.modified.byName());
    data["tree"] = jsonOf(selectLargest(summary.tree, folderLimit));
    data["newest"] = jsonOf(summary.newest.sorted());
    data["largest"] = jsonOf(summary.largest.sorted());
    data["duplicates"] = jsonOf(summary.duplicates);
    data["deleted"] = { { "files", summary.deletedFiles }, { "folders", summary.deletedFolders },
        { "recent", jsonOf(summary.deleted.sorted()) } };
    volumes.push_back(data.dump());
}

void ReportData::addBroken(const ConfiguredVolume& volume, const std::string& problem)
{
    Json data = head(volume);
    data["problem"] = visible(problem);
    volumes.push_back(data.dump());
}

std::string ReportData::text(long long made) const
{
    const std::time_t time = made;
    std::tm parts = {};
    localtime_r(&time, &parts);
    const Json data = { { "host", hostName() }, { "made", localTime(made) }, { "zone", visible(parts.tm_zone) } };
    std::string text = data.dump();
    text.pop_back(); // the closing brace
    return text + fmt::format(",\"volumes\":[{}]}}", fmt::join(volumes, ","));
}
