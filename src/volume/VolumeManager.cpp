#include "volume/VolumeManager.h"

#include "classify/CategoryMapper.h"
#include "config/QuarrowConfig.h"
#include "config/VolumeManagerConfig.h"
#include "core/SignalMask.h"
#include "core/Survival.h"
#include "db/DBFile.h"
#include "db/DBFolder.h"
#include "db/SimpleDBFile.h"
#include "db/Transaction.h"
#include "db/VolumeDBManager.h"
#include "volume/FairLock.h"
#include "volume/FolderReader.h"
#include "watch/VolumeWatcher.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>
#include <vector>

namespace {

constexpr unsigned directoryBit = 0x4000; // alone, not the whole type field: what has it counts as a folder

/// Times are compared as the catalogue stores them.
int storedTime(time_t seconds) { return static_cast<int>(seconds); }

int categoryOf(const std::string& fileName)
{
    const std::string::size_type dot = fileName.rfind('.');
    if (dot == std::string::npos || dot + 1 == fileName.length())
        return oru::db::CategoryMapper::categoryOther;
    return oru::db::CategoryMapper::Instance().ExtensionToCategory(fileName.substr(dot + 1));
}

long elapsedMillis(const timeval& from)
{
    timeval now;
    gettimeofday(&now, nullptr);
    return (now.tv_sec - from.tv_sec) * 1000 + (now.tv_usec - from.tv_usec) / 1000;
}

/// The records with their keys, in strict byte order of the keys. The records' own ordering is not strict.
template <typename Record, typename Key>
auto sortedBy(const std::list<Record>& records, Key key)
{
    std::vector<std::pair<std::string, const Record*>> sorted;
    sorted.reserve(records.size());
    for (const Record& record : records)
        sorted.emplace_back(key(record), &record);
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    return sorted;
}

/// Fills the record of a file that has no live row yet.
void describeNewFile(DBFile& file, const struct stat64& status)
{
    file.setCategory(categoryOf(file.getName()));
    file.setModified_time(storedTime(status.st_mtime));
    file.setCreated_time(storedTime(status.st_ctime)); // the inode's change: the nearest to a birth that is everywhere
    file.setSize(status.st_size);
}

std::list<std::string> crawlPathsOf(const std::string& volumeName)
{
    std::list<std::string> crawlPaths;
    QuarrowConfig::getInstance()->getCrawlPaths(volumeName, crawlPaths);
    return crawlPaths;
}

} // namespace

struct VolumeManager::CatalogueListing {
    std::list<SimpleDBFile> files;
    std::list<DBFolder> folders;
};

struct VolumeManager::DiskListing {
    std::vector<std::string> files;      ///< names
    std::vector<std::string> folders;    ///< volume-relative paths
    std::vector<std::string> subfolders; ///< the same folders in the order of the disk, absolute: those to visit next
};

struct VolumeManager::Walk {
    const std::string& startPath;
    const bool isRootWalk;
    const std::string configuredPath;         ///< may be a link or lie behind one; below it none is followed
    std::queue<std::string> folderQueue = {}; ///< absolute paths still to visit: depth costs queue, not stack
    int foldersProcessed = 0;
    int filesSeen = 0;
    FolderCounters counters = {}; ///< of the latest folder that was listed
};

VolumeManager::VolumeManager() = default;

VolumeManager::~VolumeManager() = default;

// Changes

void VolumeManager::handleChangeFolder(std::string& path)
{
    if (!isOfVolume(path))
        return;
    bool found = false;
    for (const std::string& crawlPath : crawlPathsOf(name)) {
        if (path == volumePath + crawlPath)
            found = true;
    }
    syslog(
        LOG_LOCAL5 | LOG_INFO, "Going to walk %s in handleChangeFolder and found is %d\n", path.c_str(), found ? 1 : 0);
    std::string startPath = path; // of its own: the walk re-labels watches, and with them the caller's string
    walk(startPath, found);
}

void VolumeManager::handleNewFolder(std::string& dir, const char* entryName)
{
    if (!isOfVolume(dir, entryName))
        return;
    std::string full = dir + "/" + entryName;
    try {
        {
            const FairLock held(door, &lock);
            struct stat64 status;
            if (!findFolder(full, status))
                return;
            DBFolder folder;
            folder.setPath(relative(full));
            const bool exists = dbManager->folderExists(folder);
            folder.setModified_time(storedTime(status.st_mtime));
            if (exists) {
                dbManager->updateFolder(folder);
            } else {
                folder.setCreated_time(storedTime(status.st_ctime));
                dbManager->insertFolder(folder, false);
            }
        }
        walk(full, false); // catalogues and watches what it brought; takes the lock itself
    } catch (const std::exception&) {
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in updating/inserting of the folder %s\n", entryName);
    }
}

void VolumeManager::handleNewFile(std::string& dir, const char* entryName)
{
    if (!isOfVolume(dir, entryName))
        return;
    const FairLock held(door, &lock);
    struct stat64 status;
    if (!findFile(dir + "/" + entryName, status))
        return;
    try {
        DBFile file = fileAt(dir, entryName);
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
}

void VolumeManager::handleMoveFolder(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName)
{
    if (!isOfVolume(fromDir, fromName) || !isOfVolume(toDir, toName))
        return;
    std::string newFull = toDir + "/" + toName;
    const std::string oldPath = relative(fromDir) + "/" + fromName;
    try {
        {
            const FairLock held(door, &lock);
            struct stat64 status;
            if (!findFolder(newFull, status)) {
                std::printf("%s is not a dir\n", newFull.c_str());
                return;
            }
            DBFolder oldFolder;
            oldFolder.setName(fromName);
            oldFolder.setPath(oldPath);
            DBFolder newFolder;
            newFolder.setPath(relative(toDir) + "/" + toName);
            newFolder.setModified_time(storedTime(status.st_mtime));
            Transaction transaction(*dbManager);
            if (dbManager->folderExists(oldFolder)) {
                newFolder.setName(toName);
                dbManager->moveFolder(oldFolder, newFolder);
            } else {
                syslog(LOG_LOCAL5 | LOG_INFO,
                    "The old folder %s does not exist. So treating the move as a new folder\n", oldPath.c_str());
                std::printf("The old folder %sdoes not exist. So treating the move as a new folder\n", oldPath.c_str());
                newFolder.setCreated_time(storedTime(status.st_ctime));
                dbManager->insertFolder(newFolder, false);
            }
            transaction.commit();
        }
        walk(newFull, false); // also tells the watches below the folder their new paths
    } catch (const std::exception&) {
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in moving folder %s to %s\n", fromName, toName);
    }
}

void VolumeManager::handleMoveFile(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName)
{
    if (!isOfVolume(fromDir, fromName) || !isOfVolume(toDir, toName))
        return;
    const std::string newFull = toDir + "/" + toName;
    DBFile oldFile = fileAt(fromDir, fromName);
    const std::string oldPath = oldFile.getPath();
    const FairLock held(door, &lock);
    struct stat64 status;
    if (!findFile(newFull, status)) {
        syslog(LOG_LOCAL5 | LOG_ERR, "Error!!! New file %s does not exist on the filesystem\n", toName);
        return;
    }
    try {
        DBFile newFile = fileAt(toDir, toName);
        describeNewFile(newFile, status);
        if (dbManager->fileExists(oldFile)) {
            dbManager->moveFile(oldFile, newFile);
        } else {
            dbManager->insertFile(newFile);
            syslog(LOG_LOCAL5 | LOG_INFO, "The old file %s does not exist, so inserting a new one %s \n",
                oldPath.c_str(), newFull.c_str());
        }
    } catch (const std::exception&) {
        // One path of the volume and one of the disk, on purpose: the pair that the line above shows as well.
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in moving the file %s to %s\n", oldPath.c_str(), newFull.c_str());
    }
}

void VolumeManager::handleDeleteFolder(std::string& dir, const char* entryName)
{
    if (!isOfVolume(dir, entryName))
        return;
    const std::string full = dir + "/" + entryName;
    const FairLock held(door, &lock);
    try {
        DBFolder folder;
        folder.setPath(relative(full));
        deleteWhole(folder); // does nothing for a folder that the catalogue does not know
    } catch (const std::exception&) {
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in deleting folder %s\n", full.c_str());
    }
}

void VolumeManager::handleDeleteFile(std::string& dir, const char* entryName)
{
    if (!isOfVolume(dir, entryName))
        return;
    const FairLock held(door, &lock);
    try {
        DBFile file = fileAt(dir, entryName);
        if (dbManager->fileExists(file))
            dbManager->deleteFile(file);
    } catch (const std::exception&) {
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in deleting file %s\n", entryName);
    }
}

void VolumeManager::handleModifyFile(std::string& dir, const char* entryName)
{
    if (!isOfVolume(dir, entryName))
        return;
    const FairLock held(door, &lock);
    struct stat64 status;
    if (!findFile(dir + "/" + entryName, status))
        return;
    try {
        DBFile file = fileAt(dir, entryName);
        if (!dbManager->fileExists(file)) {
            // Not inserted, on purpose: the next walk of its folder does that.
            syslog(LOG_LOCAL5 | LOG_ERR, "There is an error condition here for %s %s\n", dir.c_str(), entryName);
            return;
        }
        updateIfChanged(file, status);
    } catch (const std::exception&) {
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in updating file %s\n", entryName);
    }
}

/// The record by which the catalogue knows an entry of a watched folder.
DBFile VolumeManager::fileAt(const std::string& dir, const std::string& entryName) const
{
    DBFile file;
    file.setName(entryName);
    file.setPath(relative(dir) + "/" + entryName);
    return file;
}

/// Writes time and size of a live row that `file` was filled from, when they differ from the disk.
void VolumeManager::updateIfChanged(DBFile& file, const struct stat64& status)
{
    if (file.getModified_time() == storedTime(status.st_mtime) && file.getSize() == status.st_size)
        return;
    file.setModified_time(storedTime(status.st_mtime));
    file.setSize(status.st_size);
    file.setIs_deleted(false);
    dbManager->updateFile(file);
}

// Life cycle

bool VolumeManager::initialize(std::string& volumeName, std::string& path)
{
    suspended = false;
    online = true;
    walking = false;
    stopRequest.takeBack();
    sem_init(&lock, 0, 1);
    initialized = true;
    dbManager = new VolumeDBManager;
    name = volumeName;
    volumePath = path;
    volumePathLength = static_cast<int>(volumePath.length());
    dbPath = path + "/" + ".quarrow" + "/" + "quarrow.db";
    volumeConfigPath = path + "/" + ".quarrow" + "/" + "quarrow-volume.xml";
    // The text names the state file and shows no path for either of the two: log readers know no other.
    const auto open = [this] {
        dbManager->open(dbPath.c_str());
        volumeConfig = new VolumeManagerConfig(volumeConfigPath);
    };
    return survive(
        open, [](const char* text) { syslog(LOG_LOCAL5 | LOG_ERR, "Could not open the volume cfg file %s\n", text); });
}

void VolumeManager::walkOnce()
{
    if (stopRequest.isMade() || isVolumeInStandby()) {
        walking = false;
        return;
    }
    reapWalkThread();
    pthread_attr_destroy(&walkThreadAttr);
    pthread_attr_init(&walkThreadAttr);
    std::memset(walkStack, 0, sizeof walkStack);
    // Refused, it leaves the thread a stack that the C library makes, on which a walk does as well.
    // cppcheck-suppress ignoredReturnValue
    pthread_attr_setstack(&walkThreadAttr, walkStack, sizeof walkStack);
    walkThreadStarted = pthread_create(&walkThread, &walkThreadAttr, start_thread_once, this) == 0;
}

void VolumeManager::reapWalkThread()
{
    if (!walkThreadStarted)
        return;
    walkThreadStarted = false;
    pthread_join(walkThread, nullptr);
}

void* VolumeManager::start_thread_once(void* manager)
{
    auto* self = static_cast<VolumeManager*>(manager);
    // No catch (...): the walk leaves by pthread_exit(), whose forced unwinding has to pass.
    try {
        self->walk();
    } catch (const std::exception&) {
        self->logFailedWalk();
    }
    self->walking = false;
    return nullptr;
}

void VolumeManager::requestStop()
{
    stopRequest.make();
    if (dbManager != nullptr)
        dbManager->requestStop();
}

void VolumeManager::destroy()
{
    requestStop();
    VolumeWatcher::getInstance()->removeVolumeWatchListener(name);
    while (isWalking())
        sleep(1);
    reapWalkThread(); // also one that was created and has not said yet that it walks
    delete volumeConfig;
    volumeConfig = nullptr;
    delete dbManager;
    dbManager = nullptr;
    if (initialized)
        sem_destroy(&lock);
    initialized = false;
}

bool VolumeManager::isWalking() { return walking; }

std::string& VolumeManager::getName() { return name; }

bool VolumeManager::isVolumeInStandby()
{
    struct stat64 status;
    return stat64("/tmp/standby", &status) == 0;
}

void VolumeManager::purgeIfRequired(int threshold)
{
    if (isVolumeInStandby()) {
        syslog(LOG_LOCAL5 | LOG_INFO, "Volume in standby, ignoring purge");
        return;
    }
    const int now = static_cast<int>(std::time(nullptr));
    const int last = volumeConfig->getLastPurgeTime();
    // 32 bits that wrap, then compared as signed: what the state files in the field were written with.
    if (static_cast<int>(2U * static_cast<unsigned>(threshold) + static_cast<unsigned>(last)) > now)
        return;

    const FairLock held(door, &lock);
    syslog(LOG_LOCAL5 | LOG_INFO, "Purging the DB at %d\n", now);
    dbManager->purgeDeletedFiles(threshold);
    dbManager->purgeDeletedFolders(threshold);
    // Not `now`, on purpose: against the test above the next purge falls due one threshold from here.
    volumeConfig->setLastPurgeTime(static_cast<int>(static_cast<unsigned>(now) - static_cast<unsigned>(threshold)));
    dbManager->checkpoint();
    syslog(LOG_LOCAL5 | LOG_INFO, "Done with the purge %d\n", static_cast<int>(std::time(nullptr)));
}

void VolumeManager::logFailedWalk()
{
    if (!stopRequest.isMadeOrPending()) // the end of what a stop interrupts is no failure
        syslog(LOG_LOCAL5 | LOG_ERR, "Got an exception during the walking of volumeManager %s\n", name.c_str());
}

// The walk

void VolumeManager::walk()
{
    blockAllSignals();
    walking = true;
    {
        releaseOrphans();
        const std::list<std::string> crawlPaths = crawlPathsOf(name);
        if (!crawlPaths.empty()) {
            removeForeignTopLevelFolders(crawlPaths);
            for (const std::string& crawlPath : crawlPaths) {
                std::string startPath = volumePath + crawlPath;
                walk(startPath, true);
            }
        } else {
            syslog(LOG_LOCAL5 | LOG_INFO, "Crawl paths is empty so starting at %s\n", volumePath.c_str());
            walk(volumePath, true);
            removeStrayFolders();
        }
    }
    walking = false;
    pthread_exit(nullptr);
}

/// Once: this release leaves none.
void VolumeManager::releaseOrphans()
{
    if (orphansReleased)
        return;
    const FairLock held(door, &lock);
    orphansReleased = dbManager->releaseOrphans();
}

void VolumeManager::removeForeignTopLevelFolders(const std::list<std::string>& crawlPaths)
{
    for (const DBFolder& folder : topLevelFolders()) {
        if (stopRequest.isMadeOrPending())
            return;
        const std::string path = folder.getPath();
        syslog(LOG_LOCAL5 | LOG_INFO, "Checking if the folder %s exists in the path list", path.c_str());
        if (std::find(crawlPaths.begin(), crawlPaths.end(), path) != crawlPaths.end())
            continue;
        syslog(LOG_LOCAL5 | LOG_INFO, "not found %s so removing\n", path.c_str());
        removeTopLevelFolder(folder);
    }
}

/// Without crawl paths the volume's own row alone hangs on nothing. A burst that looks at a folder before the one above
/// it is back makes another such row. The walk has hung those on their parents that it came by, see
/// checkAndUpdateFolderEntryInTheDB(); but of a folder that is gone only this takes notice.
void VolumeManager::removeStrayFolders()
{
    bool removed = false;
    for (const DBFolder& folder : topLevelFolders()) {
        if (stopRequest.isMadeOrPending())
            return;
        if (folder.getPath().empty() || !isGone(folder.getPath()))
            continue;
        removeTopLevelFolder(folder);
        removed = true;
    }
    if (!removed)
        return;
    const FairLock held(door, &lock);
    dbManager->checkpoint();
}

std::list<DBFolder> VolumeManager::topLevelFolders()
{
    DBFolder top;
    top.setFolder_id(-1);
    const FairLock held(door, &lock);
    return dbManager->getFolderListByFolder(top);
}

void VolumeManager::removeTopLevelFolder(const DBFolder& folder)
{
    DBFolder removed;
    removed.setFolder_id(folder.getFolder_id());
    removed.setPath(folder.getPath());
    const FairLock held(door, &lock);
    try {
        deleteWhole(removed);
    } catch (const std::exception&) {
        logFailedWalk();
    }
}

/// In one transaction: a stop or a kill half-way would leave live rows below deleted ones for ever.
void VolumeManager::deleteWhole(DBFolder& folder)
{
    Transaction transaction(*dbManager);
    dbManager->deleteFolder(folder);
    transaction.commit();
}

/// Whether nothing is at a path of the volume any more, or something that is no folder. Not when the volume itself is
/// missing: it may come back.
bool VolumeManager::isGone(const std::string& path) const
{
    struct stat64 status;
    if (stat64((volumePath + "/").c_str(), &status) != 0)
        return false;
    const std::string full = volumePath + path;
    if (isBehindLink(full, volumePath))
        return true;
    return lstat64(full.c_str(), &status) == 0 ? !S_ISDIR(status.st_mode) : errno == ENOENT || errno == ENOTDIR;
}

void VolumeManager::walk(std::string& startPath, bool isRootWalk)
{
    const time_t walkStart = std::time(nullptr);
    Walk walk { startPath, isRootWalk, isRootWalk ? startPath : configuredPathAbove(startPath) };
    walk.folderQueue.push(startPath);
    {
        const FairLock held(door, &lock);
        dbManager->keepFiles();
    }
    while (!stopRequest.isMadeOrPending() && !walk.folderQueue.empty()) {
        const std::string path = std::move(walk.folderQueue.front());
        walk.folderQueue.pop();
        if (isExcludePath(path))
            continue;
        if (++walk.foldersProcessed % 1000 == 0)
            syslog(LOG_LOCAL5 | LOG_INFO, "Processed %d folders\n", walk.foldersProcessed);
        // One folder at a time, so that the purge and the handlers get their turn.
        const FairLock held(door, &lock);
        dbManager->useWriteAheadLog(); // whatever kept it from that at the last try, a reader perhaps, may be gone
        walkFolder(walk, path);
    }
    {
        const FairLock held(door, &lock);
        dbManager->checkpoint(); // from here on the main file alone is complete
    }
    syslog(LOG_LOCAL5 | LOG_INFO, "Finished walk. Walk started at %s\n", startPath.c_str());
    syslog(LOG_LOCAL5 | LOG_INFO, "Total folders/files (re)indexed: %d/%d\n", walk.foldersProcessed, walk.filesSeen);
    syslog(LOG_LOCAL5 | LOG_INFO, "The time taken: %d\n", static_cast<int>(std::time(nullptr) - walkStart));
    syslog(LOG_LOCAL5 | LOG_INFO, "Actively watching %d folders\n", VolumeWatcher::getInstance()->numWatches());
}

void VolumeManager::walkFolder(Walk& walk, const std::string& path)
{
    DiskListing onDisk;
    try {
        Transaction transaction(*dbManager);
        if (!isBehindLink(path, walk.configuredPath)
            && checkAndUpdateFolderEntryInTheDB(path, walk.startPath, walk.isRootWalk))
            reconcileFolder(walk, path, transaction, onDisk);
        transaction.commit();
        logFolderSummary(path, walk.counters);
    } catch (const std::exception&) {
        logFailedWalk();
        // Everything done for the folder is undone. Its subfolders are walked all the same, unless its own row is gone
        // with the rest: theirs would then hang on -1, and no later walk would put that right.
        if (!isCatalogued(path))
            return;
    }
    for (std::string& subfolder : onDisk.subfolders)
        walk.folderQueue.push(std::move(subfolder));
}

bool VolumeManager::isCatalogued(const std::string& path)
{
    DBFolder folder;
    folder.setPath(relative(path));
    try {
        return dbManager->folderExists(folder);
    } catch (const std::exception&) {
        return false;
    }
}

void VolumeManager::reconcileFolder(
    Walk& walk, const std::string& path, const Transaction& transaction, DiskListing& onDisk)
{
    walk.counters = FolderCounters(); // only here: a folder that does not come this far repeats the last one's figures
    DBFolder folder;
    CatalogueListing catalogued;
    listCatalogue(path, folder, catalogued);
    transaction.requireOpen();

    // The watch before the read: an entry that is born between the two is read or reported, if not both.
    std::string watched = path;
    VolumeWatcher::getInstance()->addDirectoryToWatch(name, watched);
    if (!listDisk(walk, path, folder, onDisk))
        return;

    std::sort(onDisk.files.begin(), onDisk.files.end());
    std::sort(onDisk.folders.begin(), onDisk.folders.end());
    mergeFiles(path, catalogued, onDisk, walk.counters, transaction);
    mergeFolders(path, catalogued, onDisk, walk.counters);
}

/// Without the lists, or one of them, the walk goes on: everything on disk then counts as new.
void VolumeManager::listCatalogue(const std::string& path, DBFolder& folder, CatalogueListing& listed)
{
    timeval start;
    gettimeofday(&start, nullptr);
    folder.resetFolder();
    folder.setPath(relative(path));
    try {
        dbManager->folderExists(folder);
        listed.files = dbManager->getSimpleFileListByFolder(folder);
        listed.folders = dbManager->getFolderListByFolder(folder);
    } catch (const std::exception&) {
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in getting the file/folder list for %s\n", path.c_str());
    }
    if (static_cast<double>(elapsedMillis(start)) + 0.5 > 1500.0)
        syslog(LOG_LOCAL5 | LOG_INFO, "Taking some time for %s as list are file=%d folder=%d\n", path.c_str(),
            static_cast<int>(listed.files.size()), static_cast<int>(listed.folders.size()));
}

/// False when the folder could not be read to its end: what it did not list is then not known to be gone.
bool VolumeManager::listDisk(Walk& walk, const std::string& path, DBFolder& folder, DiskListing& listed)
{
    FolderReader reader(path, walk.configuredPath);
    if (!reader.isOpen())
        return false;
    while (!stopRequest.isMade()) {
        const dirent* entry = reader.next();
        if (entry == nullptr)
            break;
        // The type that the folder itself gives, never stat(): links, devices and what has no type are no media.
        if (entry->d_type == DT_DIR) {
            const std::string& full = listed.subfolders.emplace_back(path + "/" + entry->d_name);
            listed.folders.push_back(relative(full));
            dbManager->folderExists(folder);
        } else if (entry->d_type == DT_REG) {
            listed.files.emplace_back(entry->d_name);
            ++walk.filesSeen;
        }
    }
    return !reader.hasFailed();
}

void VolumeManager::mergeFiles(const std::string& path, const CatalogueListing& catalogued, const DiskListing& onDisk,
    FolderCounters& counters, const Transaction& transaction)
{
    const auto update = [&](const std::string& file) {
        if (!checkAndUpdateFileEntryInTheDB(file, path + "/" + file))
            transaction.requireOpen();
    };
    const auto known = sortedBy(catalogued.files, [](const SimpleDBFile& file) { return file.getName(); });
    auto disk = onDisk.files.begin();
    auto row = known.begin();
    while (!stopRequest.isMade() && (disk != onDisk.files.end() || row != known.end())) {
        if (row == known.end() || (disk != onDisk.files.end() && *disk < row->first)) {
            update(*disk++);
            ++counters.addFileCount;
        } else if (disk == onDisk.files.end() || *disk > row->first) {
            removeVanishedFile(*row++->second, counters);
        } else {
            update(*disk++);
            ++row;
        }
    }
}

void VolumeManager::mergeFolders(
    const std::string& path, const CatalogueListing& catalogued, const DiskListing& onDisk, FolderCounters& counters)
{
    const auto known = sortedBy(catalogued.folders, [](const DBFolder& folder) { return folder.getPath(); });
    auto disk = onDisk.folders.begin();
    // Ends with the catalogue's list, on purpose: new folders that sort after all of it are not counted. A new folder
    // gets its row when its own turn in the queue comes.
    for (auto row = known.begin(); !stopRequest.isMade() && row != known.end();) {
        if (disk == onDisk.folders.end() || *disk > row->first) {
            removeVanishedFolder(path, *row++->second, counters);
        } else if (*disk < row->first) {
            ++disk;
            ++counters.addFolderCount;
        } else {
            ++disk;
            ++row;
        }
    }
}

void VolumeManager::removeVanishedFile(const SimpleDBFile& file, FolderCounters& counters)
{
    DBFile vanished;
    vanished.setName(file.getName());
    vanished.setPath(file.getPath());
    if (!dbManager->fileExists(vanished))
        return;
    dbManager->deleteFile(vanished);
    ++counters.deleteFileCount;
}

void VolumeManager::removeVanishedFolder(const std::string& path, const DBFolder& folder, FolderCounters& counters)
{
    DBFolder vanished;
    vanished.setPath(folder.getPath());
    if (!dbManager->folderExists(vanished))
        return;
    dbManager->deleteFolder(vanished);
    ++counters.deleteFolderCount;
    std::string removed = path + "/" + folder.getName();
    syslog(LOG_LOCAL5 | LOG_INFO, "Removing %s \n", removed.c_str());
    VolumeWatcher::getInstance()->removeDirectoryToWatch(removed);
}

void VolumeManager::logFolderSummary(const std::string& path, const FolderCounters& counters)
{
    syslog(LOG_LOCAL5 | LOG_INFO, "For folder %s", path.c_str());
    syslog(LOG_LOCAL5 | LOG_INFO, "Add file count = %d, Delete file count = %d", counters.addFileCount,
        counters.deleteFileCount);
    syslog(LOG_LOCAL5 | LOG_INFO, "Add folder count = %d, Delete folder count = %d", counters.addFolderCount,
        counters.deleteFolderCount);
}

bool VolumeManager::checkAndUpdateFolderEntryInTheDB(
    const std::string& path, const std::string& startPath, bool isRootWalk)
{
    struct stat64 status;
    const bool isRoot = isRootWalk && path == startPath;
    // lstat() shows a link for what it is: it lacks the directory bit.
    if ((mayBeLink(path, isRoot) ? stat64(path.c_str(), &status) : lstat64(path.c_str(), &status)) != 0)
        return false;
    if ((status.st_mode & directoryBit) == 0)
        return false;
    try {
        DBFolder folder;
        folder.setPath(relative(path));
        const bool exists = dbManager->folderExists(folder);
        const bool isCurrent = exists && folder.getModified_time() == storedTime(status.st_mtime);
        const bool isStray = exists && isRootWalk && !isRoot && findParentOfStray(path, folder);
        if (isCurrent && !isStray)
            return true;
        if (!isCurrent) {
            folder.setCreated_time(storedTime(status.st_ctime));
            folder.setModified_time(storedTime(status.st_mtime));
        }
        if (isStray)
            dbManager->insertIndividualFolder(folder); // of a row that is there it writes times and parent
        else if (exists)
            dbManager->updateFolder(folder);
        else
            dbManager->insertFolder(folder, isRoot || path == volumePath); // nothing is above the volume's own row
        return true;
    } catch (const std::exception&) {
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in checking for the file %s in the DB\n", path.c_str());
        return false;
    }
}

/// Whether the live row, of no start folder, hangs on nothing though the folder above it has a live row, which then
/// becomes its parent in the record. Nothing else would ever correct or delete such a row.
bool VolumeManager::findParentOfStray(const std::string& path, DBFolder& folder)
{
    if (folder.getParent_id() != -1 || path == volumePath)
        return false;
    for (const std::string& crawlPath : crawlPathsOf(name)) {
        if (path == volumePath + crawlPath)
            return false;
    }
    DBFolder parent;
    parent.setPath(folder.getPath().substr(0, folder.getPath().rfind('/')));
    if (!dbManager->folderExists(parent))
        return false;
    folder.setParent_id(parent.getFolder_id());
    return true;
}

bool VolumeManager::checkAndUpdateFileEntryInTheDB(const std::string& fileName, const std::string& fullPath)
{
    struct stat64 status;
    if (lstat64(fullPath.c_str(), &status) != 0 || S_ISLNK(status.st_mode))
        return false; // a link has taken the file's place: the file is gone
    try {
        DBFile file;
        file.setName(fileName);
        file.setPath(relative(fullPath));
        if (dbManager->fileExists(file)) {
            updateIfChanged(file, status);
        } else {
            describeNewFile(file, status);
            dbManager->insertFile(file);
        }
        return true;
    } catch (const std::exception&) {
        if (!stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in insert/update of the file %s\n", fileName.c_str());
        return false;
    }
}

bool VolumeManager::isExcludePath(const std::string& path)
{
    std::list<std::string> excludePaths;
    QuarrowConfig::getInstance()->getExcludePaths(name, excludePaths);
    // Longer, not as long: a folder that is named in full stays, with its watch; all below it is skipped.
    return std::any_of(excludePaths.begin(), excludePaths.end(), [&path](const std::string& exclude) {
        return path.length() > exclude.length() && path.find(exclude) != std::string::npos;
    });
}

/// What the administrator has configured may be a link. Below it none is followed: a user of the volume may have put
/// one in a folder's place, also in that of a folder whose change is being looked at.
bool VolumeManager::mayBeLink(const std::string& path, bool isRoot) const { return isRoot || path == volumePath; }

/// The nearest start folder of a full walk at or above the path.
std::string VolumeManager::configuredPathAbove(const std::string& path) const
{
    std::string nearest = volumePath;
    for (const std::string& crawlPath : crawlPathsOf(name)) {
        const std::string start = volumePath + crawlPath;
        if (start.length() > nearest.length() && (path + "/").compare(0, start.length() + 1, start + "/") == 0)
            nearest = start;
    }
    return nearest;
}

/// False for what is gone, a folder, or a link: no link is followed, so what a link has replaced is gone.
bool VolumeManager::findFile(const std::string& path, struct stat64& status) const
{
    return findEntry(path, status) && !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode);
}

bool VolumeManager::findFolder(const std::string& path, struct stat64& status) const
{
    return findEntry(path, status) && S_ISDIR(status.st_mode);
}

bool VolumeManager::findEntry(const std::string& path, struct stat64& status) const
{
    return !isBehindLink(path, configuredPathAbove(path)) && lstat64(path.c_str(), &status) == 0;
}

bool VolumeManager::isOfVolume(const std::string& path) const
{
    const bool leadsUp = (path + "/").find("/../") != std::string::npos;
    return !leadsUp && (path == volumePath || path.compare(0, volumePath.length() + 1, volumePath + "/") == 0);
}

/// Whether a folder of this volume can have an entry of that name.
bool VolumeManager::isOfVolume(const std::string& dir, const char* entryName) const
{
    return isOfVolume(dir) && *entryName != '\0' && std::strchr(entryName, '/') == nullptr && !IsDotOrDotDot(entryName);
}

std::string VolumeManager::relative(const std::string& path) const
{
    return path.substr(std::min(path.length(), static_cast<std::string::size_type>(volumePathLength)));
}
