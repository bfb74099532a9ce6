#include "volume/FolderReconciliation.h"

#include "core/StopRequest.h"
#include "db/DBFile.h"
#include "db/Transaction.h"
#include "db/VolumeDBManager.h"
#include "volume/EntryChecks.h"
#include "volume/FolderReader.h"
#include "volume/VolumeAccess.h"
#include "watch/VolumeWatcher.h"

#include <sys/time.h>
#include <syslog.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace {

long long elapsedMillis(const timeval& from)
{
    timeval now;
    gettimeofday(&now, nullptr);
    return (now.tv_sec - from.tv_sec) * 1000 + (now.tv_usec - from.tv_usec) / 1000;
}

/// The records with their keys, in byte order of the keys. The records' own operator < is not used: it is a <=, with
/// which std::sort would read past the end.
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

} // namespace

FolderReconciliation::FolderReconciliation(const VolumeAccess& access, const EntryChecks& checks,
    const std::string& folder, const std::string& configuredAbove, Counters& shown)
    : volume(access)
    , entryChecks(checks)
    , path(folder)
    , configuredPath(configuredAbove)
    , counters(shown)
{
}

void FolderReconciliation::run(const Transaction& transaction)
{
    counters = Counters(); // only here, on purpose: a folder that is not listed logs the figures of the one before
    DBFolder folder;
    listCatalogue(folder);
    transaction.requireOpen();

    // The watch comes before the read: an entry that is made between the two is then read, reported, or both.
    std::string watched = path;
    VolumeWatcher::getInstance()->addDirectoryToWatch(volume.name, watched);
    {
        FolderReader reader(path, configuredPath);
        if (!reader.isOpen() || !listDisk(reader, folder))
            return;
        mergeFiles(reader.descriptor(), transaction);
    }
    mergeFolders();
}

/// When a list cannot be had, the walk goes on without it: everything on the disk then counts as new.
void FolderReconciliation::listCatalogue(DBFolder& folder)
{
    timeval start;
    gettimeofday(&start, nullptr);
    folder.resetFolder();
    folder.setPath(volume.paths.relative(path));
    try {
        volume.dbManager->folderExists(folder);
        cataloguedFiles = volume.dbManager->getSimpleFileListByFolder(folder);
        cataloguedFolders = volume.dbManager->getFolderListByFolder(folder);
    } catch (const std::exception&) {
        if (!volume.stopRequest.isMadeOrPending())
            syslog(LOG_LOCAL5 | LOG_ERR, "Error in getting the file/folder list for %s\n", path.c_str());
    }
    // The 0.5 makes the line appear from 1500 whole milliseconds on, not from 1501: log readers know that limit.
    if (static_cast<double>(elapsedMillis(start)) + 0.5 > 1500.0)
        syslog(LOG_LOCAL5 | LOG_INFO, "Taking some time for %s as list are file=%d folder=%d\n", path.c_str(),
            static_cast<int>(cataloguedFiles.size()), static_cast<int>(cataloguedFolders.size()));
}

/// False when the folder could not be read to its end: entries that were not listed may exist then.
bool FolderReconciliation::listDisk(FolderReader& reader, DBFolder& folder)
{
    while (!volume.stopRequest.isMade()) { // not isMadeOrPending(), here and below: a system call for each entry
        const dirent* entry = reader.next();
        if (entry == nullptr)
            break;
        // Only the type that the folder gives counts, on purpose, and stat() is never asked: links, devices and entries
        // without a type are not catalogued.
        if (entry->d_type == DT_DIR) {
            const std::string& full = subfolderPaths.emplace_back(path + "/" + entry->d_name);
            diskFolders.push_back(volume.paths.relative(full));
            // The extra look-up for each subfolder stays, on purpose, though its result is not used: it throws when the
            // catalogue has begun to fail, so the folder is undone before anything in it is taken for gone.
            volume.dbManager->folderExists(folder);
        } else if (entry->d_type == DT_REG) {
            diskFiles.emplace_back(entry->d_name);
        }
    }
    return !reader.hasFailed();
}

void FolderReconciliation::mergeFiles(int folderOnDisk, const Transaction& transaction)
{
    std::sort(diskFiles.begin(), diskFiles.end());
    const auto known = sortedBy(cataloguedFiles, [](const SimpleDBFile& file) { return file.getName(); });
    auto disk = diskFiles.begin();
    auto row = known.begin();
    while (!volume.stopRequest.isMade() && (disk != diskFiles.end() || row != known.end())) {
        if (row == known.end() || (disk != diskFiles.end() && *disk < row->first)) {
            updateFile(folderOnDisk, *disk++, transaction);
            ++counters.addFileCount;
        } else if (disk == diskFiles.end() || *disk > row->first) {
            removeVanishedFile(*row++->second);
        } else {
            updateFile(folderOnDisk, *disk++, transaction);
            ++row;
        }
    }
}

void FolderReconciliation::mergeFolders()
{
    std::sort(diskFolders.begin(), diskFolders.end());
    const auto known = sortedBy(cataloguedFolders, [](const DBFolder& folder) { return folder.getPath(); });
    auto disk = diskFolders.begin();
    // The loop ends with the catalogue's list, on purpose: log readers know that new folders behind it are not counted.
    // Nothing is written for a new folder here. It gets its row when its turn in the queue comes.
    for (auto row = known.begin(); !volume.stopRequest.isMade() && row != known.end();) {
        if (disk == diskFolders.end() || *disk > row->first) {
            removeVanishedFolder(*row++->second);
        } else if (*disk < row->first) {
            ++disk;
            ++counters.addFolderCount;
        } else {
            ++disk;
            ++row;
        }
    }
}

void FolderReconciliation::updateFile(int folderOnDisk, const std::string& fileName, const Transaction& transaction)
{
    if (!entryChecks.checkFileIn(folderOnDisk, fileName, path + "/" + fileName))
        transaction.requireOpen();
}

void FolderReconciliation::removeVanishedFile(const SimpleDBFile& file)
{
    DBFile vanished;
    vanished.setName(file.getName());
    vanished.setPath(file.getPath());
    if (!volume.dbManager->fileExists(vanished))
        return;
    volume.dbManager->deleteFile(vanished);
    ++counters.deleteFileCount;
}

void FolderReconciliation::removeVanishedFolder(const DBFolder& folder)
{
    DBFolder vanished;
    vanished.setPath(folder.getPath());
    if (!volume.dbManager->folderExists(vanished))
        return;
    volume.dbManager->deleteFolder(vanished);
    ++counters.deleteFolderCount;
    std::string removed = path + "/" + folder.getName();
    syslog(LOG_LOCAL5 | LOG_INFO, "Removing %s \n", removed.c_str());
    VolumeWatcher::getInstance()->removeDirectoryToWatch(removed);
}
