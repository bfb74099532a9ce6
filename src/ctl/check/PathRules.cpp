#include "ctl/check/PathRules.h"

#include "ctl/FolderLook.h"
#include "ctl/check/ConfigurationTexts.h"
#include "ctl/check/Findings.h"
#include "ctl/check/HostReading.h"

#include <climits>

namespace {

/// A crawl path of the whole volume is a slash in the file.
std::string shown(const std::string& crawlPath) { return quoted(crawlPath.empty() ? "/" : crawlPath); }

/// The rules for one volume. Refers to both arguments.
class Paths {
public:
    Paths(const VolumeReading& reading, const FindingsAbout& findings)
        : volume(reading)
        , root(reading.rootPath())
        , rootIsThere(lookAtFolder(root + "/").isFolder())
        , of(" of the volume " + quoted(reading.name))
        , found(findings)
    {
    }

    void check()
    {
        for (const TextAt& path : volume.crawlPaths) {
            checkCrawlPath(path);
            places.insert({ path.text, &path }); // the first of equal ones
        }
        for (const TextAt& path : volume.crawlPaths)
            checkCrawlPathAbove(path);
        for (const TextAt& exclusion : volume.excludePaths)
            checkExclusion(exclusion);
        if (walksOwnCatalogue())
            found.warn(volume.root.line,
                "The volume " + quoted(volume.name)
                    + " is catalogued whole, without the exclusion '/.quarrow'. The daemon catalogues and watches its"
                      " own catalogue, and programs that open it delay the changes of all volumes",
                "Write <ExcludePaths><Path>/.quarrow</Path></ExcludePaths> into it");
    }

private:
    void checkCrawlPath(const TextAt& path) const
    {
        const std::string what = "The crawl path " + shown(path.text) + of;
        if (!path.text.empty() && path.text.front() != '/')
            found.warn(path.line, what + " has no slash in front, so that the daemon walks " + quoted(root + path.text),
                "Write " + quoted("/" + path.text));
        else if (hasOddElements(path.text))
            found.warn(path.line,
                what + " has a doubled slash, or an element '.' or '..', which every path in the catalogue then has",
                "Write it without them");
        const FolderLook look = lookAtFolder(root + path.text + "/");
        if (rootIsThere && look.state == FolderLook::State::unknown)
            found.warn(path.line, what + " cannot be looked at: " + look.reason,
                "Check again as the user that the daemon runs as");
        else if (rootIsThere && !look.isFolder())
            found.warn(path.line, what + " leads to no folder: there is no " + quoted(root + path.text),
                "Make the folder, or correct the path");
    }

    void checkCrawlPathAbove(const TextAt& path) const
    {
        const TextAt* const first = places.at(path.text);
        if (first != &path) {
            found.warn(path.line,
                "The crawl path " + shown(path.text) + of + " is also in line " + std::to_string(first->line)
                    + ", and is walked twice",
                "Remove one of them");
            return;
        }
        if (path.text.length() >= PATH_MAX)
            return; // no folder has it, and there may be a million elements
        for (std::size_t slash = path.text.rfind('/'); slash != std::string::npos && slash < path.text.length();
             slash = slash == 0 ? std::string::npos : path.text.rfind('/', slash - 1)) {
            const auto above = places.find(path.text.substr(0, slash));
            if (above == places.end())
                continue;
            found.warn(path.line,
                "The crawl path " + shown(path.text) + of + " lies in the crawl path " + shown(above->first)
                    + " in line " + std::to_string(above->second->line) + ", and is walked twice",
                "Remove it");
            return;
        }
    }

    void checkExclusion(const TextAt& exclusion) const
    {
        const std::string what = "The exclusion " + quoted(exclusion.text) + of;
        if (exclusion.text.empty()) {
            found.warn(exclusion.line, what + " is in every path: it leaves out everything", "Remove it");
            return;
        }
        if (leavesOut(exclusion.text, root)) {
            found.warn(exclusion.line,
                what + " occurs in the path of the volume itself, " + quoted(root) + ": it leaves out everything",
                "Write a text that occurs only below the volume's root");
            return;
        }
        if ((root + "/").find(exclusion.text) != std::string::npos) {
            found.warn(exclusion.line,
                what + " occurs in every path below " + quoted(root) + ": it leaves out all folders of the volume",
                "Write a text that occurs only below the volume's root");
            return;
        }
        if (exclusion.text.compare(0, root.length() + 1, root + "/") == 0 && !root.empty())
            found.warn(exclusion.line,
                what
                    + " names a folder in full: what is below it is left out, but that folder and the files in it are"
                      " catalogued",
                "To leave it out whole, write " + quoted(exclusion.text.substr(root.length()))
                    + ", wherever that occurs");
        checkAgainstCrawlPaths(exclusion);
    }

    void checkAgainstCrawlPaths(const TextAt& exclusion) const
    {
        for (const TextAt& path : volume.crawlPaths) {
            if (leavesOut(exclusion.text, root + path.text))
                found.warn(exclusion.line,
                    "The exclusion " + quoted(exclusion.text) + of + " leaves out the crawl path " + shown(path.text)
                        + " in line " + std::to_string(path.line),
                    "Remove one of them");
        }
    }

    bool walksOwnCatalogue() const
    {
        const bool isWhole = volume.crawlPaths.empty() || places.count("") != 0;
        return isWhole && !root.empty() && !volume.leavesOut(root) && !volume.leavesOut(root + "/.quarrow");
    }

    const VolumeReading& volume;
    const std::string root;
    const bool rootIsThere;
    const std::string of;
    const FindingsAbout& found;
    std::map<std::string, const TextAt*> places; ///< of the crawl paths, where each stands first
};

} // namespace

void checkPaths(const HostReading& reading, const FindingsAbout& found)
{
    for (const auto& [name, volume] : reading.volumes)
        Paths(volume, found).check();
}
