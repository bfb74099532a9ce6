#include "volume/VolumePaths.h"

#include "config/QuarrowConfig.h"
#include "volume/FolderReader.h"

#include <algorithm>
#include <cstring>

VolumePaths::VolumePaths(const std::string& name, const std::string& rootFolder, int length)
    : volumeName(name)
    , rootPath(rootFolder)
    , rootLength(length)
{
}

std::string VolumePaths::relative(const std::string& path) const
{
    return path.substr(std::min(path.length(), static_cast<std::string::size_type>(rootLength)));
}

bool VolumePaths::isOfVolume(const std::string& path) const
{
    const bool leadsUp = (path + "/").find("/../") != std::string::npos;
    return !leadsUp && (path == rootPath || path.compare(0, rootPath.length() + 1, rootPath + "/") == 0);
}

bool VolumePaths::isOfVolume(const std::string& dir, const char* entryName) const
{
    return isOfVolume(dir) && *entryName != '\0' && std::strchr(entryName, '/') == nullptr && !IsDotOrDotDot(entryName);
}

std::list<std::string> VolumePaths::crawlPaths() const
{
    std::list<std::string> paths;
    QuarrowConfig::getInstance()->getCrawlPaths(volumeName, paths);
    return paths;
}

bool VolumePaths::isCrawlPath(const std::string& path) const
{
    const std::list<std::string> paths = crawlPaths();
    return std::any_of(
        paths.begin(), paths.end(), [&](const std::string& crawlPath) { return path == absolute(crawlPath); });
}

std::string VolumePaths::configuredPathAbove(const std::string& path) const
{
    std::string nearest = rootPath;
    for (const std::string& crawlPath : crawlPaths()) {
        const std::string start = absolute(crawlPath);
        if (start.length() > nearest.length() && (path + "/").compare(0, start.length() + 1, start + "/") == 0)
            nearest = start;
    }
    return nearest;
}

bool VolumePaths::isExcludePath(const std::string& path) const
{
    std::list<std::string> excludePaths;
    QuarrowConfig::getInstance()->getExcludePaths(volumeName, excludePaths);
    // Longer, not as long, on purpose: a folder that an exclude string names in full is walked and watched itself, and
    // everything below it is skipped.
    return std::any_of(excludePaths.begin(), excludePaths.end(), [&path](const std::string& exclude) {
        return path.length() > exclude.length() && path.find(exclude) != std::string::npos;
    });
}
