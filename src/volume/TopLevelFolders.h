#pragma once

#include <list>
#include <string>

class DBFolder;
struct VolumeAccess;

/// The folders whose row hangs on nothing: start folders of a full walk, former ones, and strays. Walk thread only. All
/// operations take the volume's lock as long as they need the catalogue, so the caller does not hold it, and end early
/// when a stop is asked for. Throw DBOperationException when the folders cannot be listed; one that cannot be removed
/// is logged and left.
class TopLevelFolders {
public:
    /// `access` outlives the object.
    explicit TopLevelFolders(const VolumeAccess& access);

    /// Marks deleted every top-level folder that is none of the crawl paths, with everything below it.
    void removeAllBut(const std::list<std::string>& crawlPaths) const;
    /// For a volume without crawl paths, after its walk: marks deleted the top-level folders that are gone from disk.
    void removeStrays() const;

private:
    std::list<DBFolder> list() const;
    void remove(const DBFolder& folder) const;
    bool isGone(const std::string& relativePath) const;

    const VolumeAccess& volume;
};
