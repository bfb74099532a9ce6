#pragma once

#include "volume/EntryChecks.h"
#include "volume/FolderReconciliation.h"
#include "volume/VolumeAccess.h"

#include <queue>
#include <string>

/// One walk of the tree at a start folder, breadth first: brings the catalogue in line with it and watches every folder
/// in it.
class TreeWalk {
public:
    /// `start` is absolute and outlives the object. `makesRoot`: a row made for it becomes a root.
    TreeWalk(const VolumeAccess& access, const std::string& start, bool makesRoot);
    TreeWalk(const TreeWalk&) = delete;
    TreeWalk& operator=(const TreeWalk&) = delete;

    /// Takes the volume's lock folder by folder; the caller does not hold it. Ends early when a stop is asked for. What
    /// a folder throws undoes that folder alone.
    void run();

private:
    enum class FolderResult {
        walked,
        leftOut, ///< it is gone or behind a link, or its own row could not be written: nothing in it was looked at
        undone   ///< it failed half-way: the catalogue has it as before, what was read of it is known
    };

    void visit(const std::string& path);
    FolderResult walkFolder(const std::string& path, FolderReconciliation& reconciliation);
    bool isCatalogued(const std::string& path) const;
    void logFolderSummary(const std::string& path) const;

    const VolumeAccess volume;
    const EntryChecks entryChecks;
    const std::string& startPath;
    const bool isRootWalk;
    const std::string configuredPath;    ///< may be a link or lie behind one; below it none is followed
    std::queue<std::string> folderQueue; ///< absolute paths still to visit: depth costs queue, not stack
    int foldersProcessed = 0;
    int filesSeen = 0;
    FolderReconciliation::Counters counters; ///< of the latest folder that was listed
};
