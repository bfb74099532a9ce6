#include "ctl/check/VolumeRules.h"

#include "core/LongestPath.h"
#include "ctl/FolderLook.h"
#include "ctl/check/ConfigurationTexts.h"
#include "ctl/check/Findings.h"
#include "ctl/check/HostReading.h"

#include <algorithm>

namespace {

constexpr const char* cataloguePlace = "/.quarrow/quarrow.db"; // below the root

void checkVolumeElements(const HostReading& reading, const FindingsAbout& found)
{
    std::map<std::string, int> lines;
    for (const VolumeElement& volume : reading.volumeElements) {
        if (!volume.hasRoot)
            found.warn(volume.line, "The volume " + quoted(volume.name) + " has no <Root>, so it is no volume",
                "Write the absolute path of its root folder into a <Root>, or remove the volume");
        else if (volume.name.empty())
            found.warn(volume.line, "The volume has no <Name>: log lines do not say that they are about it",
                "Give it a <Name> of its own");
        int& line = lines[volume.name];
        if (line != 0)
            found.warn(volume.line,
                "The name " + quoted(volume.name) + " is also that of the volume in line " + std::to_string(line)
                    + ". Of both only the later <Root> counts, with the crawl paths and exclusions of both",
                "Give each volume a <Name> of its own");
        line = volume.line;
    }
}

/// What the text itself shows.
void checkRootText(const VolumeReading& volume, const FindingsAbout& found)
{
    const std::string path = volume.rootPath();
    const std::string what = "The root " + quoted(volume.root.text) + " of the volume " + quoted(volume.name);
    if (!volume.root.text.empty() && volume.root.text.front() != '/')
        found.warn(volume.root.line,
            what + " does not begin with a slash, so it depends on the folder that the daemon is started in",
            "Write its absolute path");
    const std::vector<TextAt> starts = volume.startFolders();
    if (std::any_of(starts.begin(), starts.end(), [](const TextAt& folder) { return folder.text.empty(); }))
        found.warn(volume.root.line, what + " works with crawl paths only",
            "Write the folders that are to be catalogued into <CrawlPaths>");
    if (hasOddElements(path))
        found.warn(volume.root.line,
            what + " has a doubled slash, or an element '.' or '..', which every path of the volume then has",
            "Write it without them");
}

void checkWritability(const VolumeReading& volume, const std::string& root, const FindingsAbout& found)
{
    const std::string path = volume.rootPath();
    const std::string catalogue = path + cataloguePlace;
    const std::string remedy = "Mount it with write permission";
    if (lookAtFolder(catalogue).state == FolderLook::State::other) {
        if (isOnReadOnlyFileSystem(catalogue))
            found.warn(
                volume.root.line, root + " is mounted read-only: nothing can be written into its catalogue", remedy);
    } else if (isOnReadOnlyFileSystem(lookAtFolder(path + "/.quarrow").isFolder() ? path + "/.quarrow" : path + "/")) {
        found.warn(volume.root.line,
            root + " is mounted read-only, and has no catalogue yet: the daemon would leave the volume out", remedy);
    }
}

/// The length of the catalogue's path, as written or with links resolved, whichever is longer.
std::size_t lengthOfCataloguePath(const VolumeReading& volume)
{
    const std::string path = volume.rootPath() + cataloguePlace;
    return path.front() == '/' ? std::max(path.length(), canonicalPath(path).length()) : path.length();
}

void checkRootFolder(const VolumeReading& volume, const FindingsAbout& found)
{
    const std::string path = volume.rootPath() + "/"; // the daemon takes no text for this one, too
    const std::string root = "The root " + quoted(volume.root.text) + " of the volume " + quoted(volume.name);
    const FolderLook look = lookAtFolder(path);
    const std::size_t length = lengthOfCataloguePath(volume);
    if (length > longestCataloguePath && (look.isFolder() || look.state == FolderLook::State::missing)) {
        found.warn(volume.root.line,
            root + " is too long: with " + quoted(cataloguePlace) + " it has " + std::to_string(length)
                + " bytes, links resolved, and may have " + std::to_string(longestCataloguePath)
                + ". The daemon would leave the volume out",
            "Move the folder to a shorter path");
        return;
    }
    switch (look.state) {
    case FolderLook::State::missing:
        found.warn(volume.root.line, root + " is missing: the daemon would make it and catalogue it empty",
            "Mount the volume before the daemon starts, or correct the path");
        break;
    case FolderLook::State::deadLink:
        found.warn(volume.root.line,
            root + " cannot be reached: " + quoted(look.reason)
                + " is a link to nothing. The daemon would leave the volume out",
            "Make or mount what the link leads to before the daemon starts, or correct the path");
        break;
    case FolderLook::State::other:
        found.warn(volume.root.line, root + " is no folder: the daemon would leave the volume out",
            "Write the path of a folder");
        break;
    case FolderLook::State::unknown:
        found.warn(volume.root.line, root + " cannot be looked at: " + look.reason,
            "Check again as the user that the daemon runs as");
        break;
    case FolderLook::State::folder:
        if (isEmptyFolder(path) && !isMountPoint(path))
            found.warn(volume.root.line, root + " is an empty folder, and no file system is mounted there",
                "If one is meant to be, mount it before the daemon starts, which would catalogue the empty folder");
        checkWritability(volume, root, found);
        break;
    }
}

} // namespace

void checkVolumes(const HostReading& reading, const FindingsAbout& found)
{
    checkVolumeElements(reading, found);
    for (const auto& [name, volume] : reading.volumes) {
        checkRootText(volume, found);
        checkRootFolder(volume, found);
    }
}
