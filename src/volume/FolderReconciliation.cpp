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

long elapsedMillis(const timeval& from)
{
    timeval now;
    gettimeofday(&now, nullptr);
    return (now.tv_sec - from.tv_sec) * 1000 + (now.tv_usec - from.tv_usec) / 1000;
}

/// The records with their keys, in byte order of the keys. Not by the records' own operator <, which is a <= and would
/// make std::sort read past the end.
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
    counters = Counters(); // only here: a folder that does not come this far repeats the last one's figures
    DBFolder folder;
    listCatalogue(folder);
    transaction.requireOpen();

    // The watch before the read: an entry that is born between the two is read or reported, if not both.
    std::string watched = path;
    VolumeWatcher::getInstance()->addDirectoryToWatch(volume.name, watched);
    if (!listDisk(folder))
        return;

    std::sort(diskFiles.begin(), diskFiles.end());
    std::sort(diskFolders.begin(), diskFolders.end());
    mergeFiles(transaction);
    mergeFolders();
}

/// Without the lists, or one of them, the walk goes on: everything on disk then counts as new.
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
    // Whole milliseconds and a half: 1500 of them are long enough already.
    if (static_cast<double>(elapsedMillis(start)) + 0.5 > 1500.0)
        syslog(LOG_LOCAL5 | LOG_INFO, "Taking some time for %s as list are file=%d folder=%d\n", path.c_str(),
            static_cast<int>(cataloguedFiles.size()), static_cast<int>(cataloguedFolders.size()));
}

/// False when the folder could not be read to its end: what it did not list is then not known to be gone.
bool FolderReconciliation::listDisk(DBFolder& folder)
{
    FolderReader reader(path, configuredPath);
    if (!reader.isOpen())
        return false;
    while (!volume.stopRequest.isMade()) { // here and below not isMadeOrPending(): that is a system call per entry
        const dirent* entry = reader.next();
        if (entry == nullptr)
            break;
        // The type that the folder itself gives, never stat(): links, devices and what has no type are no media.
        if (entry->d_type == DT_DIR) {
            const std::string& full = subfolderPaths.emplace_back(path + "/" + entry->d_name);
            diskFolders.push_back(volume.paths.relative(full));
            // The row itself is of no use here. But the look-up throws when the catalogue fails by now, and the folder
            // is undone before anything of it is taken for gone.
            volume.dbManager->folderExists(folder);
        } else if (entry->d_type == DT_REG) {
            diskFiles.emplace_back(entry->d_name);
        }
    }
    return !reader.hasFailed();
}

void FolderReconciliation::mergeFiles(const Transaction& transaction)
{
    const auto known = sortedBy(cataloguedFiles, [](const SimpleDBFile& file) { return file.getName(); });
    auto disk = diskFiles.begin();
    auto row = known.begin();
    while (!volume.stopRequest.isMade() && (disk != diskFiles.end() || row != known.end())) {
        if (row == known.end() || (disk != diskFiles.end() && *disk < row->first)) {
            updateFile(*disk++, transaction);
            ++counters.addFileCount;
        } else if (disk == diskFiles.end() || *disk > row->first) {
            removeVanishedFile(*row++->second);
        } else {
            updateFile(*disk++, transaction);
            ++row;
        }
    }
}

void FolderReconciliation::mergeFolders()
{
    const auto known = sortedBy(cataloguedFolders, [](const DBFolder& folder) { return folder.getPath(); });
    auto disk = diskFolders.begin();
    // Ends with the catalogue's list, on purpose: new folders that sort after all of it are not counted. A new folder
    // gets its row when its own turn in the queue comes.
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

void FolderReconciliation::updateFile(const std::string& fileName, const Transaction& transaction)
{
    if (!entryChecks.checkFile(fileName, path + "/" + fileName))
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
