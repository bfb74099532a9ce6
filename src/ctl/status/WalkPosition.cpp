#include "ctl/status/WalkPosition.h"

#include "ctl/Catalogue.h"
#include "ctl/FolderLook.h"
#include "ctl/LiesBelow.h"
#include "ctl/Query.h"
#include "ctl/status/ProcessFacts.h"
#include "ctl/status/WalkOrder.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <list>
#include <string_view>
#include <thread>

namespace {

constexpr int mostLooks = 20;
constexpr std::chrono::milliseconds pause { 5 };

bool isFolder(const std::string& path)
{
    struct stat64 status;
    return stat64(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string rootWithoutLinks(const ConfiguredVolume& volume)
{
    const std::string root = canonicalPath(volume.root.empty() ? "/" : volume.root);
    return root == "/" ? "" : root;
}

/// `root` and `folder` are absolute paths without links. nullopt when the folder is none that a walk reads.
std::optional<std::string> pathInVolume(const std::string& root, const std::string& folder)
{
    if (folder != root && !liesBelow(folder, root))
        return std::nullopt;
    const std::string path = folder.substr(root.length());
    if (path == "/.quarrow" || liesBelow(path, "/.quarrow"))
        return std::nullopt;
    return path;
}

} // namespace

std::optional<WalkPosition> walkPosition(
    const Catalogue& catalogue, const ConfiguredVolume& volume, const std::string& folder)
{
    const std::list<std::string> whole = { "" };
    WalkPosition position;
    const WalkOrder order(volume.root, folder);
    bool isPassed = false;
    for (const std::string& start : volume.crawlPaths.empty() ? whole : volume.crawlPaths) {
        const bool isHere = !isPassed && (folder == start || liesBelow(folder, start));
        Query folders(catalogue, "select path from Folders where is_deleted = 0");
        while (folders.next()) {
            const std::string_view path = folders.bytes(0);
            if (path != start && !liesBelow(path, start))
                continue;
            ++position.total;
            position.done += (isHere ? order.isBefore(path) : !isPassed) ? 1 : 0;
        }
        isPassed = isPassed || isHere;
    }
    return isPassed ? std::optional(position) : std::nullopt;
}

std::vector<std::optional<std::string>> foldersInHand(
    const ProcessFacts& process, const std::vector<ConfiguredVolume>& volumes, int wanted)
{
    std::vector<std::string> roots;
    roots.reserve(volumes.size());
    for (const ConfiguredVolume& volume : volumes)
        roots.push_back(rootWithoutLinks(volume));
    std::vector<std::optional<std::string>> found(volumes.size());
    for (int look = 0; look < mostLooks; ++look) {
        if (look > 0)
            std::this_thread::sleep_for(pause);
        for (const auto& [descriptor, path] : process.descriptors()) {
            for (std::size_t volume = 0; volume < volumes.size(); ++volume) {
                std::optional<std::string> inVolume = pathInVolume(roots[volume], process.ownPath(path));
                if (inVolume && isFolder(process.descriptorPath(descriptor)))
                    found[volume] = std::move(inVolume);
            }
        }
        const auto known = std::count_if(found.begin(), found.end(), [](const auto& path) { return path.has_value(); });
        if (known >= wanted)
            break;
    }
    return found;
}
