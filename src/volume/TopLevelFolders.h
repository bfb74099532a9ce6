#pragma once

#include <list>
#include <string>

class DBFolder;
struct VolumeAccess;

/// The folders whose row has the parent_id -1: start folders of a full walk, former start folders, and strays. Used on
/// the walk thread. The operations take the volume's lock for each piece of work, so the caller does not hold it. They
/// end early when a stop is requested. They throw DBOperationException when the folders cannot be listed. A folder that
/// cannot be removed is logged and stays.
class TopLevelFolders {
public:
    /// `access` outlives the object.
    explicit TopLevelFolders(const VolumeAccess& access);

    /// Marks every top-level folder deleted that is not one of the crawl paths, with everything below it: one
    /// transaction for each.
    void removeAllBut(const std::list<std::string>& crawlPaths) const;
    /// For a volume without crawl paths, after its walk. Marks the top-level folders deleted that are gone from the
    /// disk.
    void removeStrays() const;

private:
    std::list<DBFolder> list() const;
    void remove(const DBFolder& folder) const;
    bool isGone(const std::string& relativePath) const;

    const VolumeAccess& volume;
};
