#include "core/StopRequest.h"
#include "db/DBFile.h"
#include "db/VolumeDBManager.h"
#include "volume/DiskFacts.h"
#include "volume/FairLock.h"
#include "volume/Links.h"
#include "volume/VolumeAccess.h"
#include "volume/VolumeManager.h"

#include <syslog.h>

#include <exception>
#include <string>

// VolumeManager's handlers of changed files.

namespace {

/// A record with the name and the volume-relative path of an entry.
DBFile fileAt(const VolumePaths& paths, const std::string& dir, const std::string& entryName)
{
    DBFile file;
    file.setName(entryName);
    file.setPath(paths.relative(dir) + "/" + entryName);
    return file;
}

/// Takes the volume's lock and calls `change(status)` when the file is on the disk.
template <typename Change>
void withFileOnDisk(const VolumeAccess& volume, const std::string& dir, const char* entryName, const Change& change)
{
    if (!volume.paths.isOfVolume(dir, entryName))
        return;
    const FairLock held(volume.door, volume.lock);
    const std::string full = dir + "/" + entryName;
    struct stat64 status;
    if (findFile(full, volume.paths.configuredPathAbove(full), status))
        change(status);
}

} // namespace

void VolumeManager::handleNewFile(std::string& dir, const char* entryName)
{
    withFileOnDisk(access(), dir, entryName, [&](const struct stat64& status) {
        try {
            DBFile file = fileAt(paths(), dir, entryName);
            if (dbManager->fileExists(file)) {
                file.setModified_time(storedTime(status.st_mtime));
                file.setSize(status.st_size);
                dbManager->updateFile(file);
            } else {
                describeNewFile(file, status);
                dbManager->insertFile(file);
            }
        } catch (const std::exception&) {
            if (!stopRequest.isMadeOrPending())
                syslog(LOG_LOCAL5 | LOG_ERR, "Error in insert/update of the file %s\n", entryName);
        }
    });
}

void VolumeManager::handleModifyFile(std::string& dir, const char* entryName)
{
    withFileOnDisk(access(), dir, entryName, [&](const struct stat64& status) {
        try {
            DBFile file = fileAt(paths(), dir, entryName);
            if (dbManager->fileExists(file))
                updateIfChanged(*dbManager, file, status);
            else // Not inserted, on purpose: the next walk of the folder inserts it.
                syslog(LOG_LOCAL5 | LOG_ERR, "There is an error condition here for %s %s\n", dir.c_str(), entryName);
        } catch (const std::exception&) {
            if (!stopRequest.isMadeOrPending())
                syslog(LOG_LOCAL5 | LOG_ERR, "Error in updating file %s\n", entryName);
        }
    });
}

void VolumeManager::handleMoveFile(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName)
{
    if (!paths().isOfVolume(fromDir, fromName) || !paths().isOfVolume(toDir, toName))
        return;
    const std::string newFull = toDir + "/" + toName;
    DBFile oldFile = fileAt(paths(), fromDir, fromName);
    const std::string oldPath = oldFile.getPath();
    const FairLock held(door, &lock);
    struct stat64 status;
    if (!findFile(newFull, paths().configuredPathAbove(newFull), status)) {
        syslog(LOG_LOCAL5 | LOG_ERR, "Error!!! New file %s does not exist on the filesystem\n", toName);
        return;
    }
    try {
        DBFile newFile = fileAt(paths(), toDir, toName);
        describeNewFile(newFile, status);
        if (dbManager->fileExists(oldFile)) {
            dbManager->moveFile(oldFile, newFile);
        } else {
            dbManager->insertFile(newFile);
            syslog(LOG_LOCAL5 | LOG_INFO, "The old file %s does not exist, so inserting a new one %s \n",
                oldPath.c_str(), newFull.c_str());
        }
    } catch (const std::exception&) {
        // A volume-relative path and an absolute one, on purpose, as in the line above: log readers know the pair.
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in moving the file %s to %s\n", oldPath.c_str(), newFull.c_str());
    }
}

void VolumeManager::handleDeleteFile(std::string& dir, const char* entryName)
{
    if (!paths().isOfVolume(dir, entryName))
        return;
    const FairLock held(door, &lock);
    try {
        DBFile file = fileAt(paths(), dir, entryName);
        if (dbManager->fileExists(file))
            dbManager->deleteFile(file);
    } catch (const std::exception&) {
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in deleting file %s\n", entryName);
    }
}
