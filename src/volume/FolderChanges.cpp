#include "core/StopRequest.h"
#include "db/DBFolder.h"
#include "db/Transaction.h"
#include "db/VolumeDBManager.h"
#include "volume/DiskFacts.h"
#include "volume/FairLock.h"
#include "volume/Links.h"
#include "volume/VolumeManager.h"
#include "volume/VolumePaths.h"

#include <syslog.h>

#include <cstdio>
#include <exception>
#include <string>

// VolumeManager's handlers of changed folders.

namespace {

/// Updates or inserts the row of a folder that is on the disk. `folder` has the path. The caller holds the lock.
void updateOrInsert(VolumeDBManager& dbManager, DBFolder& folder, const struct stat64& status)
{
    const bool exists = dbManager.folderExists(folder);
    folder.setModified_time(storedTime(status.st_mtime));
    if (exists) {
        dbManager.updateFolder(folder);
    } else {
        folder.setCreated_time(storedTime(status.st_ctime));
        dbManager.insertFolder(folder, false);
    }
}

/// Moves the rows of `oldFolder`, or inserts `newFolder` when the catalogue does not know the old one. Both records
/// have their paths, and `newFolder` has its modification time. The caller holds the lock.
void moveOrInsert(
    VolumeDBManager& dbManager, DBFolder& oldFolder, DBFolder& newFolder, const char* toName, time_t createdTime)
{
    const std::string oldPath = oldFolder.getPath();
    Transaction transaction(dbManager);
    if (dbManager.folderExists(oldFolder)) {
        newFolder.setName(toName);
        dbManager.moveFolder(oldFolder, newFolder);
    } else {
        syslog(LOG_LOCAL5 | LOG_INFO, "The old folder %s does not exist. So treating the move as a new folder\n",
            oldPath.c_str());
        // The blank after the path is missing on purpose: readers of the output know the line so.
        std::printf("The old folder %sdoes not exist. So treating the move as a new folder\n", oldPath.c_str());
        newFolder.setCreated_time(storedTime(createdTime));
        dbManager.insertFolder(newFolder, false);
    }
    transaction.commit();
}

} // namespace

void VolumeManager::handleChangeFolder(std::string& path)
{
    if (!paths().isOfVolume(path))
        return;
    const bool found = paths().isCrawlPath(path);
    syslog(
        LOG_LOCAL5 | LOG_INFO, "Going to walk %s in handleChangeFolder and found is %d\n", path.c_str(), found ? 1 : 0);
    // A copy: the string belongs to the caller, and the walk refers to its start path until it ends.
    std::string startPath = path;
    walk(startPath, found);
}

void VolumeManager::handleNewFolder(std::string& dir, const char* entryName)
{
    if (!paths().isOfVolume(dir, entryName))
        return;
    std::string full = dir + "/" + entryName;
    try {
        {
            const FairLock held(door, &lock);
            struct stat64 status;
            if (!findFolder(full, paths().configuredPathAbove(full), status))
                return;
            DBFolder folder;
            folder.setPath(paths().relative(full));
            updateOrInsert(*dbManager, folder, status);
        }
        walk(full, false); // catalogues and watches the folder's content; takes the lock itself
    } catch (const std::exception&) {
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in updating/inserting of the folder %s\n", entryName);
    }
}

void VolumeManager::handleMoveFolder(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName)
{
    if (!paths().isOfVolume(fromDir, fromName) || !paths().isOfVolume(toDir, toName))
        return;
    std::string newFull = toDir + "/" + toName;
    const std::string oldPath = paths().relative(fromDir) + "/" + fromName;
    try {
        {
            const FairLock held(door, &lock);
            struct stat64 status;
            if (!findFolder(newFull, paths().configuredPathAbove(newFull), status)) {
                std::printf("%s is not a dir\n", newFull.c_str());
                return;
            }
            DBFolder oldFolder;
            oldFolder.setName(fromName);
            oldFolder.setPath(oldPath);
            DBFolder newFolder;
            newFolder.setPath(paths().relative(toDir) + "/" + toName);
            newFolder.setModified_time(storedTime(status.st_mtime));
            moveOrInsert(*dbManager, oldFolder, newFolder, toName, status.st_ctime);
        }
        walk(newFull, false); // also gives the watches below the folder their new paths; takes the lock itself
    } catch (const std::exception&) {
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in moving folder %s to %s\n", fromName, toName);
    }
}

void VolumeManager::handleDeleteFolder(std::string& dir, const char* entryName)
{
    if (!paths().isOfVolume(dir, entryName))
        return;
    const std::string full = dir + "/" + entryName;
    const FairLock held(door, &lock);
    try {
        DBFolder folder;
        folder.setPath(paths().relative(full));
        // One transaction: half of a removal would leave live rows below deleted ones.
        Transaction transaction(*dbManager);
        dbManager->deleteFolder(folder); // does nothing when the catalogue does not know the folder
        transaction.commit();
    } catch (const std::exception&) {
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in deleting folder %s\n", full.c_str());
    }
}
