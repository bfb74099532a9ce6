#include "volume/TopLevelFolders.h"

#include "core/StopRequest.h"
#include "db/DBFolder.h"
#include "db/Transaction.h"
#include "db/VolumeDBManager.h"
#include "volume/FairLock.h"
#include "volume/Links.h"
#include "volume/VolumeAccess.h"

#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <exception>

TopLevelFolders::TopLevelFolders(const VolumeAccess& access)
    : volume(access)
{
}

void TopLevelFolders::removeAllBut(const std::list<std::string>& crawlPaths) const
{
    for (const DBFolder& folder : list()) {
        if (volume.stopRequest.isMadeOrPending())
            return;
        const std::string path = folder.getPath();
        syslog(LOG_LOCAL5 | LOG_INFO, "Checking if the folder %s exists in the path list", path.c_str());
        if (std::find(crawlPaths.begin(), crawlPaths.end(), path) != crawlPaths.end())
            continue;
        syslog(LOG_LOCAL5 | LOG_INFO, "not found %s so removing\n", path.c_str());
        remove(folder);
    }
}

/// Without crawl paths only the volume's own row should have no parent. A burst can add another one: it handles a
/// folder that came back before the folder above it. The walk gives such a folder its parent, see EntryChecks. When the
/// folder is gone no walk comes by it, and this is the only place that marks it deleted.
void TopLevelFolders::removeStrays() const
{
    bool removed = false;
    for (const DBFolder& folder : list()) {
        if (volume.stopRequest.isMadeOrPending())
            return;
        if (folder.getPath().empty() || !isGone(folder.getPath()))
            continue;
        remove(folder);
        removed = true;
    }
    if (!removed)
        return;
    const FairLock held(volume.door, volume.lock);
    volume.dbManager->checkpoint();
}

std::list<DBFolder> TopLevelFolders::list() const
{
    DBFolder top;
    top.setFolder_id(-1);
    const FairLock held(volume.door, volume.lock);
    return volume.dbManager->getFolderListByFolder(top);
}

void TopLevelFolders::remove(const DBFolder& folder) const
{
    DBFolder removed;
    removed.setFolder_id(folder.getFolder_id());
    removed.setPath(folder.getPath());
    const FairLock held(volume.door, volume.lock);
    try {
        // One transaction: half of a removal would leave live rows below deleted ones.
        Transaction transaction(*volume.dbManager);
        volume.dbManager->deleteFolder(removed);
        transaction.commit();
    } catch (const std::exception&) {
        volume.logFailedWalk();
    }
}

/// True when there is no folder at the path any more. False while the volume itself is missing, because it may come
/// back.
bool TopLevelFolders::isGone(const std::string& relativePath) const
{
    struct stat64 status;
    if (stat64((volume.paths.root() + "/").c_str(), &status) != 0)
        return false;
    const std::string full = volume.paths.absolute(relativePath);
    if (isBehindLink(full, volume.paths.root()))
        return true;
    return lstat64(full.c_str(), &status) == 0 ? !S_ISDIR(status.st_mode) : errno == ENOENT || errno == ENOTDIR;
}
