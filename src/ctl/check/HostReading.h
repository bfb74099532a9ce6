#pragma once

#include <map>
#include <string>
#include <vector>

struct _xmlNode; // NOLINT(bugprone-reserved-identifier): the name is libxml2's

/// A text of the configuration and where it stands.
struct TextAt {
    std::string text;
    int line = 0; ///< 0: it does not stand there
};

/// A volume as the daemon has it after reading: put together from all Volume elements of its name.
struct VolumeReading {
    std::string name;
    TextAt root; ///< as written
    std::vector<TextAt> crawlPaths;
    std::vector<TextAt> excludePaths;

    /// Without the one trailing slash that the daemon ignores.
    std::string rootPath() const;
    /// The absolute path of each folder where a walk begins, with the line that names it.
    std::vector<TextAt> startFolders() const;
    /// Whether the daemon leaves out the folder at this absolute path, with everything below it.
    bool leavesOut(const std::string& path) const;
};

/// Whether the exclusion leaves out the folder at the absolute path, by the daemon's rule.
bool leavesOut(const std::string& exclusion, const std::string& path);

/// A Volume element.
struct VolumeElement {
    int line;
    std::string name; ///< what the daemon takes for its name; empty without one
    bool hasRoot;     ///< one that counts
};

/// What a host configuration says, with line numbers. Read by the daemon's rules, but by code of its own: it explains
/// what the daemon's class decides.
struct HostReading {
    /// Reads the tree of a parsed document, which may have no root element. It is not needed afterwards.
    explicit HostReading(const _xmlNode* rootElement);

    TextAt version;
    TextAt lastUpdatedTime;
    TextAt purgeThreshold;
    TextAt rewalkThreshold;
    TextAt enabled;
    std::vector<VolumeElement> volumeElements;    ///< in the order of the file
    std::map<std::string, VolumeReading> volumes; ///< by name; those without a root are missing
};

/// The line of an element; that of its start tag's end.
int lineOf(const _xmlNode* element);
/// An element's own name.
std::string nameOf(const _xmlNode* element);
/// The text of the first Name in a Volume element, with its line; the text is empty when it has none.
TextAt nameOfVolume(const _xmlNode* volume);
