#include "ctl/check/VolumeOverlaps.h"

#include "ctl/FolderLook.h"
#include "ctl/check/ConfigurationTexts.h"
#include "ctl/check/Findings.h"
#include "ctl/check/HostReading.h"

#include <climits>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

/// A folder where a walk begins.
struct StartFolder {
    const VolumeReading* volume;
    std::string root; ///< the volume's, canonical
    TextAt folder;
};

class Overlaps {
public:
    Overlaps(const HostReading& reading, const FindingsAbout& findings)
        : found(findings)
    {
        for (const auto& [name, volume] : reading.volumes) {
            const std::string root = canonicalPath(volume.rootPath() + "/");
            roots[root].push_back(&volume);
            for (const TextAt& folder : volume.startFolders())
                starts[canonicalPath(folder.text + "/")].push_back({ &volume, root, folder });
        }
    }

    void checkRoots() const
    {
        for (const auto& [path, volumes] : roots) {
            for (std::size_t i = 1; i < volumes.size(); ++i)
                found.warn(volumes[i]->root.line,
                    "The volume " + quoted(volumes[i]->name) + " has the same root as the volume "
                        + quoted(volumes[0]->name) + " in line " + std::to_string(volumes[0]->root.line)
                        + ". Both would write one catalogue",
                    "Remove one of them");
        }
    }

    void checkStarts()
    {
        for (const auto& [path, inner] : starts) {
            for (const StartFolder& start : inner)
                checkAbove(path, start);
        }
    }

private:
    /// Looks at the start folders of other volumes at the path and above it.
    void checkAbove(const std::string& path, const StartFolder& inner)
    {
        if (path.length() >= PATH_MAX)
            return; // no folder has it, and there may be a million elements
        for (std::string above = path;; above.resize(above.rfind('/'))) {
            const auto outer = starts.find(above.empty() ? "/" : above);
            if (outer != starts.end()) {
                for (const StartFolder& start : outer->second)
                    checkPair(start, inner, path == outer->first ? "" : path.substr(above == "/" ? 0 : above.length()));
            }
            if (above.empty() || above == "/" || above.find('/') == std::string::npos)
                return;
        }
    }

    /// `below`: how the inner one is reached from the outer one; empty for the same folder.
    void checkPair(const StartFolder& outer, const StartFolder& inner, const std::string& below)
    {
        // Of volumes with one root the reader is told otherwise. And what an exclusion leaves out no walk comes to.
        if (outer.root == inner.root || outer.volume->leavesOut(outer.folder.text + below))
            return;
        if (!told.insert({ inner.volume->name, outer.volume->name }).second
            || (below.empty() && told.count({ outer.volume->name, inner.volume->name }) != 0))
            return;
        found.warn(inner.folder.line,
            "The volume " + quoted(inner.volume->name) + " at " + inner.folder.text + " lies inside the volume "
                + quoted(outer.volume->name) + " at " + outer.folder.text + " in line "
                + std::to_string(outer.folder.line) + ". Only one of them sees changes there as they happen",
            "Catalogue each folder in one volume: by crawl paths, an exclusion, or by removing one volume");
    }

    const FindingsAbout& found;
    std::map<std::string, std::vector<const VolumeReading*>> roots; ///< by canonical path
    std::map<std::string, std::vector<StartFolder>> starts;         ///< by canonical path
    std::set<std::pair<std::string, std::string>> told;             ///< inner and outer volume
};

} // namespace

void checkOverlaps(const HostReading& reading, const FindingsAbout& found)
{
    Overlaps overlaps(reading, found);
    overlaps.checkRoots();
    overlaps.checkStarts();
}
