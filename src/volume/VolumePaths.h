#pragma once

#include <list>
#include <string>

/// The paths of one volume: which belong to it, and what the host configuration says of them. Paths are absolute unless
/// stated otherwise. Any thread: nothing changes the volume's name and root, nor the configuration, while threads run.
///
/// The object only refers to the name and the root, which must outlive it. It asks the configuration at each call.
class VolumePaths {
public:
    /// `length`: how many bytes to cut off an absolute path for the catalogue.
    VolumePaths(const std::string& name, const std::string& rootFolder, int length);

    const std::string& root() const { return rootPath; }
    /// The path as the catalogue has it; empty for the root.
    std::string relative(const std::string& path) const;
    std::string absolute(const std::string& relativePath) const { return rootPath + relativePath; }

    /// Whether the path is the root or below it, without a ".." element.
    bool isOfVolume(const std::string& path) const;
    /// Whether `dir` is a folder of the volume and an entry can have that name.
    bool isOfVolume(const std::string& dir, const char* entryName) const;

    /// The crawl paths, volume-relative, in the order of the configuration. A full walk starts at each of them, or at
    /// the root when there are none.
    std::list<std::string> crawlPaths() const;
    bool isCrawlPath(const std::string& path) const;
    /// The nearest crawl path at or above the path, as an absolute path, or the root when there is none.
    std::string configuredPathAbove(const std::string& path) const;
    /// Whether an exclude string occurs anywhere in the path and is shorter than the path.
    bool isExcludePath(const std::string& path) const;

private:
    const std::string& volumeName;
    const std::string& rootPath;
    const int rootLength;
};
