#pragma once

#include "volume/EntryChecks.h"
#include "volume/FolderReconciliation.h"
#include "volume/VolumeAccess.h"

#include <queue>
#include <string>

/// One walk of the tree at a start folder, breadth first: brings the catalogue in line with the tree and watches every
/// folder in it. Used on the walk thread and, for one changed folder, on the thread that reports the change. Two walks
/// of one volume may run at the same time; they take turns folder by folder.
class TreeWalk {
public:
    /// `start` is absolute and outlives the object. With `makesRoot` a new row for the start folder becomes a root.
    TreeWalk(const VolumeAccess& access, const std::string& start, bool makesRoot);
    TreeWalk(const TreeWalk&) = delete;
    TreeWalk& operator=(const TreeWalk&) = delete;

    /// Takes the volume's lock folder by folder, so the caller does not hold it. Ends early when a stop is requested. A
    /// std::exception in the work on a folder undoes and logs that folder, and the walk goes on.
    void run();

private:
    enum class FolderResult {
        walked,
        leftOut, ///< the folder is gone, is behind a link, or its row could not be written: its content was not read
        undone   ///< it failed half-way and was rolled back; the subfolders that were read are known
    };

    void visit(const std::string& path);
    FolderResult walkFolder(const std::string& path, FolderReconciliation& reconciliation);
    bool isCatalogued(const std::string& path) const;
    void logFolderSummary(const std::string& path) const;

    const VolumeAccess volume;
    const EntryChecks entryChecks;
    const std::string& startPath;
    const bool isRootWalk;
    const std::string configuredPath;    ///< below it no link is followed, see Links
    std::queue<std::string> folderQueue; ///< absolute paths to visit; a queue, since the stack is small
    int foldersProcessed = 0;
    int filesSeen = 0;
    FolderReconciliation::Counters counters; ///< of the last folder that was listed
};
