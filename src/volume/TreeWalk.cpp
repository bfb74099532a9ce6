#include "volume/TreeWalk.h"

#include "core/StopRequest.h"
#include "db/DBFolder.h"
#include "db/Transaction.h"
#include "db/VolumeDBManager.h"
#include "volume/FairLock.h"
#include "volume/Links.h"
#include "watch/VolumeWatcher.h"

#include <syslog.h>

#include <ctime>
#include <exception>
#include <utility>

TreeWalk::TreeWalk(const VolumeAccess& access, const std::string& start, bool makesRoot)
    : volume(access)
    , entryChecks(volume)
    , startPath(start)
    , isRootWalk(makesRoot)
    , configuredPath(isRootWalk ? startPath : volume.paths.configuredPathAbove(startPath))
{
}

void TreeWalk::run()
{
    const time_t walkStart = std::time(nullptr);
    folderQueue.push(startPath);
    {
        const FairLock held(volume.door, volume.lock);
        volume.dbManager->keepFiles();
    }
    while (!volume.stopRequest.isMadeOrPending() && !folderQueue.empty()) {
        const std::string path = std::move(folderQueue.front());
        folderQueue.pop();
        if (volume.paths.isExcludePath(path))
            continue;
        if (++foldersProcessed % 1000 == 0)
            syslog(LOG_LOCAL5 | LOG_INFO, "Processed %d folders\n", foldersProcessed);
        // For one folder at a time, so that the purge and the handlers get their turn.
        const FairLock held(volume.door, volume.lock);
        // Tried again with each folder: what prevented it the last time, such as a reader, may be gone.
        volume.dbManager->useWriteAheadLog();
        visit(path);
    }
    {
        const FairLock held(volume.door, volume.lock);
        volume.dbManager->checkpoint(); // from here on the main file alone is complete
    }
    syslog(LOG_LOCAL5 | LOG_INFO, "Finished walk. Walk started at %s\n", startPath.c_str());
    syslog(LOG_LOCAL5 | LOG_INFO, "Total folders/files (re)indexed: %d/%d\n", foldersProcessed, filesSeen);
    syslog(LOG_LOCAL5 | LOG_INFO, "The time taken: %d\n", static_cast<int>(std::time(nullptr) - walkStart));
    syslog(LOG_LOCAL5 | LOG_INFO, "Actively watching %d folders\n", VolumeWatcher::getInstance()->numWatches());
}

void TreeWalk::visit(const std::string& path)
{
    FolderReconciliation reconciliation(volume, entryChecks, path, configuredPath, counters);
    const FolderResult result = walkFolder(path, reconciliation);
    filesSeen += reconciliation.filesOnDisk();
    // The subfolders of a folder that was undone are walked all the same. They are not when the folder's own row was
    // undone with the rest: without a row above them theirs would get the parent_id -1.
    if (result == FolderResult::leftOut || (result == FolderResult::undone && !isCatalogued(path)))
        return;
    for (std::string& subfolder : reconciliation.subfolders())
        folderQueue.push(std::move(subfolder));
}

TreeWalk::FolderResult TreeWalk::walkFolder(const std::string& path, FolderReconciliation& reconciliation)
{
    try {
        Transaction transaction(*volume.dbManager);
        const bool isThere
            = !isBehindLink(path, configuredPath) && entryChecks.checkFolder(path, startPath, isRootWalk);
        if (isThere)
            reconciliation.run(transaction);
        transaction.commit();
        logFolderSummary(path);
        return isThere ? FolderResult::walked : FolderResult::leftOut;
    } catch (const std::exception&) {
        volume.logFailedWalk();
        return FolderResult::undone;
    }
}

bool TreeWalk::isCatalogued(const std::string& path) const
{
    DBFolder folder;
    folder.setPath(volume.paths.relative(path));
    try {
        return volume.dbManager->folderExists(folder);
    } catch (const std::exception&) {
        return false;
    }
}

void TreeWalk::logFolderSummary(const std::string& path) const
{
    syslog(LOG_LOCAL5 | LOG_INFO, "For folder %s", path.c_str());
    syslog(LOG_LOCAL5 | LOG_INFO, "Add file count = %d, Delete file count = %d", counters.addFileCount,
        counters.deleteFileCount);
    syslog(LOG_LOCAL5 | LOG_INFO, "Add folder count = %d, Delete folder count = %d", counters.addFolderCount,
        counters.deleteFolderCount);
}
