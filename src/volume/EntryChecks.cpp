#include "volume/EntryChecks.h"

#include "core/StopRequest.h"
#include "db/DBFile.h"
#include "db/DBFolder.h"
#include "db/VolumeDBManager.h"
#include "volume/DiskFacts.h"
#include "volume/VolumeAccess.h"

#include <fcntl.h>
#include <syslog.h>

#include <climits>
#include <exception>

/// This one bit, not the whole type field, on purpose: sockets and block devices have it too, and one in a folder's
/// place counts as a folder that cannot be read.
static constexpr unsigned directoryBit = 0x4000;

EntryChecks::EntryChecks(const VolumeAccess& access)
    : volume(access)
{
}

bool EntryChecks::checkFolder(const std::string& path, const std::string& startPath, bool isRootWalk) const
{
    struct stat64 status;
    const bool isStart = isRootWalk && path == startPath;
    if (!findFolderOnDisk(path, isStart, status))
        return false;
    try {
        updateFolderRow(path, isRootWalk, isStart, status);
        return true;
    } catch (const std::exception&) {
        if (!volume.stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in checking for the file %s in the DB\n", path.c_str());
        return false;
    }
}

/// False when there is no folder at the path. A configured path may be a link. Below it no link is followed, because a
/// user of the volume may have put one in the place of any folder.
bool EntryChecks::findFolderOnDisk(const std::string& path, bool isStart, struct stat64& status) const
{
    const bool mayBeLink = isStart || path == volume.paths.root();
    // lstat() describes the link itself, which lacks the directory bit.
    if ((mayBeLink ? stat64(path.c_str(), &status) : lstat64(path.c_str(), &status)) != 0)
        return false;
    return (status.st_mode & directoryBit) != 0;
}

void EntryChecks::updateFolderRow(
    const std::string& path, bool isRootWalk, bool isStart, const struct stat64& status) const
{
    DBFolder folder;
    folder.setPath(volume.paths.relative(path));
    const bool exists = volume.dbManager->folderExists(folder);
    const bool isCurrent = exists && folder.getModified_time() == storedTime(status.st_mtime);
    const bool isStray = exists && isRootWalk && !isStart && findParentOfStray(path, folder);
    if (isCurrent && !isStray)
        return;
    if (!isCurrent) {
        folder.setCreated_time(storedTime(status.st_ctime));
        folder.setModified_time(storedTime(status.st_mtime));
    }
    if (isStray)
        volume.dbManager->insertIndividualFolder(folder); // writes the times and the parent of the existing row
    else if (exists)
        volume.dbManager->updateFolder(folder);
    else // the volume's own row is a root in every walk: no folder is above it
        volume.dbManager->insertFolder(folder, isStart || path == volume.paths.root());
}

/// True for a row whose parent_id is -1 although it is no start folder and the folder above it has a live row. That
/// row's id is then put into the record as the parent. Nothing but a full walk corrects or deletes such a row.
bool EntryChecks::findParentOfStray(const std::string& path, DBFolder& folder) const
{
    if (folder.getParent_id() != -1 || path == volume.paths.root() || volume.paths.isCrawlPath(path))
        return false;
    DBFolder parent;
    parent.setPath(folder.getPath().substr(0, folder.getPath().rfind('/')));
    if (!volume.dbManager->folderExists(parent))
        return false;
    folder.setParent_id(parent.getFolder_id());
    return true;
}

bool EntryChecks::checkFile(const std::string& fileName, const std::string& fullPath) const
{
    struct stat64 status;
    return lstat64(fullPath.c_str(), &status) == 0 && updateFileRow(fileName, fullPath, status);
}

bool EntryChecks::checkFileIn(int folder, const std::string& fileName, const std::string& fullPath) const
{
    if (fullPath.length() >= PATH_MAX)
        return false; // by its path nobody can reach the file
    struct stat64 status;
    return fstatat64(folder, fileName.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0
        && updateFileRow(fileName, fullPath, status);
}

bool EntryChecks::updateFileRow(
    const std::string& fileName, const std::string& fullPath, const struct stat64& status) const
{
    if (S_ISLNK(status.st_mode))
        return false; // a link has taken the file's place: the file is gone
    try {
        DBFile file;
        file.setName(fileName);
        file.setPath(volume.paths.relative(fullPath));
        if (volume.dbManager->fileExists(file)) {
            updateIfChanged(*volume.dbManager, file, status);
        } else {
            describeNewFile(file, status);
            volume.dbManager->insertFile(file);
        }
        return true;
    } catch (const std::exception&) {
        if (!volume.stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in insert/update of the file %s\n", fileName.c_str());
        return false;
    }
}
