#pragma once

#include <list>
#include <string>

/// The paths of one volume: which belong to it, and what the host configuration says of them. Absolute ones, unless
/// said otherwise. Any thread.
///
/// A view: name and root belong to the volume's manager and outlive it. The configuration is asked at each call.
class VolumePaths {
public:
    /// `length`: the bytes to cut off an absolute path for the catalogue.
    VolumePaths(const std::string& name, const std::string& rootFolder, int length);

    const std::string& root() const { return rootPath; }
    /// The path as the catalogue has it; "" for the root.
    std::string relative(const std::string& path) const;
    std::string absolute(const std::string& relativePath) const { return rootPath + relativePath; }

    bool isOfVolume(const std::string& path) const;
    /// Whether a folder of the volume can have an entry of that name.
    bool isOfVolume(const std::string& dir, const char* entryName) const;

    /// Volume-relative, in the order of the configuration. A full walk starts at each, or at the root without any.
    std::list<std::string> crawlPaths() const;
    bool isCrawlPath(const std::string& path) const;
    /// The nearest start folder of a full walk at or above the path, or the root.
    std::string configuredPathAbove(const std::string& path) const;
    /// Whether an exclude string occurs anywhere in the path, which has to be longer than the string.
    bool isExcludePath(const std::string& path) const;

private:
    const std::string& volumeName;
    const std::string& rootPath;
    const int rootLength;
};
