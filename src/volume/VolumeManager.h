#pragma once

#include "core/StopRequest.h"
#include "watch/VolumeWatchListener.h"

#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cstddef>
#include <list>
#include <mutex>
#include <queue>
#include <string>

class DBFile;
class DBFolder;
class SimpleDBFile;
class Transaction;
class VolumeDBManager;
class VolumeManagerConfig;
struct stat64;

/// One configured volume: owns its catalogue and state file, walks it on a thread of its own, purges it, and receives
/// its changes from the watcher.
///
/// Changes of what is not on the volume, and entries without a name or named like none, are ignored.
///
/// Life: constructed, initialize(), any number of walkOnce() and purgeIfRequired(), destroy(), deleted. All catalogue
/// work goes through the volume's lock. Over half a megabyte large: always on the heap.
class VolumeManager : public VolumeWatchListener {
public:
    VolumeManager();
    /// Neither ends a walk nor closes anything: destroy() does.
    ~VolumeManager() override;
    VolumeManager(const VolumeManager&) = delete;
    VolumeManager& operator=(const VolumeManager&) = delete;

    void handleChangeFolder(std::string& path) override;
    void handleNewFolder(std::string& dir, const char* entryName) override;
    void handleNewFile(std::string& dir, const char* entryName) override;
    void handleMoveFolder(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName) override;
    void handleMoveFile(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName) override;
    void handleDeleteFolder(std::string& dir, const char* entryName) override;
    void handleDeleteFile(std::string& dir, const char* entryName) override;
    void handleModifyFile(std::string& dir, const char* entryName) override;

    // Life cycle: main thread

    /// Opens or makes the catalogue and the state file in `path`/.quarrow. False, with a log line, when either cannot
    /// be used; the manager then is only good for destroy().
    bool initialize(std::string& volumeName, std::string& path);
    /// Starts one walk thread and returns; starts none when stopping or in standby. Not while isWalking().
    void walkOnce();
    /// Asks walks, busy waits and long statements to end soon. Returns at once; destroy() waits for it.
    void requestStop();
    /// Ends the walk, waits for its thread, closes catalogue and state file. The watcher calls no more from then on.
    void destroy();

    // Any thread

    /// Whether the walk thread is at work; false between walkOnce() and the first moments of the thread.
    bool isWalking();
    std::string& getName();
    /// Whether the appliance is in standby, the same for every volume: no walk starts then, and nothing is purged.
    bool isVolumeInStandby();
    /// Removes rows that have been marked deleted for `threshold` seconds, when that is due; takes the lock. The first
    /// purge is due 2 * threshold after time 0. Throws what catalogue and state file throw, a bare `const char*` too.
    void purgeIfRequired(int threshold);
    /// Logs that a walk or a purge of this volume ended in an exception; nothing while the daemon stops.
    void logFailedWalk();

    // The walk: on the walk thread, or on the watcher thread for one changed folder

    /// The body of the walk thread: removes top-level folders that are no crawl paths any more, walks every crawl
    /// path, ends the thread. Without crawl paths also marks deleted what hangs on nothing and is gone.
    void walk();
    /// Brings the catalogue in line with the tree at `startPath` (absolute) and watches every folder in it, breadth
    /// first. `isRootWalk`: a row made for `startPath` itself becomes a root. The caller does not hold the lock.
    void walk(std::string& startPath, bool isRootWalk);
    /// True when the folder's row is there and up to date; false for what is no folder and on failure. Lock held.
    bool checkAndUpdateFolderEntryInTheDB(const std::string& path, const std::string& startPath, bool isRootWalk);
    /// True when the file's row is there and up to date; false for what is gone and on failure. Lock held.
    bool checkAndUpdateFileEntryInTheDB(const std::string& fileName, const std::string& fullPath);
    /// Whether an exclude string occurs anywhere in the absolute path, which has to be longer than the string.
    bool isExcludePath(const std::string& path);

private:
    struct FolderCounters {
        int addFileCount = 0;
        int deleteFileCount = 0;
        int addFolderCount = 0;
        int deleteFolderCount = 0;
    };
    /// What the catalogue holds of one folder.
    struct CatalogueListing;
    /// What stands in one folder on disk.
    struct DiskListing;
    /// The state of one walk(startPath, isRootWalk).
    struct Walk;

    static void* start_thread_once(void* manager);
    void reapWalkThread();
    void releaseOrphans();
    void removeForeignTopLevelFolders(const std::list<std::string>& crawlPaths);
    void removeStrayFolders();
    std::list<DBFolder> topLevelFolders();
    void removeTopLevelFolder(const DBFolder& folder);
    void deleteWhole(DBFolder& folder);
    bool isGone(const std::string& path) const;
    bool findParentOfStray(const std::string& path, DBFolder& folder);
    void walkFolder(Walk& walk, const std::string& path);
    bool isCatalogued(const std::string& path);
    void reconcileFolder(Walk& walk, const std::string& path, const Transaction& transaction, DiskListing& onDisk);
    void listCatalogue(const std::string& path, DBFolder& folder, CatalogueListing& listed);
    bool listDisk(Walk& walk, const std::string& path, DBFolder& folder, DiskListing& listed);
    void mergeFiles(const std::string& path, const CatalogueListing& catalogued, const DiskListing& onDisk,
        FolderCounters& counters, const Transaction& transaction);
    void mergeFolders(const std::string& path, const CatalogueListing& catalogued, const DiskListing& onDisk,
        FolderCounters& counters);
    void removeVanishedFile(const SimpleDBFile& file, FolderCounters& counters);
    void removeVanishedFolder(const std::string& path, const DBFolder& folder, FolderCounters& counters);
    static void logFolderSummary(const std::string& path, const FolderCounters& counters);
    DBFile fileAt(const std::string& dir, const std::string& entryName) const;
    void updateIfChanged(DBFile& file, const struct stat64& status);
    bool mayBeLink(const std::string& path, bool isRoot) const;
    std::string configuredPathAbove(const std::string& path) const;
    bool findFile(const std::string& path, struct stat64& status) const;
    bool findFolder(const std::string& path, struct stat64& status) const;
    bool findEntry(const std::string& path, struct stat64& status) const;
    bool isOfVolume(const std::string& path) const;
    bool isOfVolume(const std::string& dir, const char* entryName) const;
    std::string relative(const std::string& path) const;

#if defined(__SANITIZE_THREAD__)
    static constexpr std::size_t walkStackBytes = 2097152; // its runtime needs more than the walk
#else
    static constexpr std::size_t walkStackBytes = 524288;
#endif

    int volumePathLength = 0;          ///< bytes to cut off an absolute path for the catalogue
    std::atomic<bool> walking = false; ///< set by the walk thread, polled by the main and the purge thread
    StopRequest stopRequest;           ///< made by the main thread, asked for by whoever works on the volume
    bool orphansReleased = false;      ///< walk thread only
    bool suspended = false;            ///< nothing reads this one and the next: room for a volume that is taken offline
    bool online = false;
    bool initialized = false;                    ///< the semaphore exists
    std::string volumeConfigPath;                ///< absolute
    std::string volumePath;                      ///< absolute, without a trailing slash
    std::string dbPath;                          ///< absolute
    VolumeDBManager* dbManager = nullptr;        ///< owned
    VolumeManagerConfig* volumeConfig = nullptr; ///< owned
    pthread_t walkThread = {};
    bool walkThreadStarted = false; ///< main thread only: there is a thread to reap
    pthread_attr_t walkThreadAttr = {};
    /// The walk thread's stack. The C library keeps the thread's record at its top, so a finished thread is reaped
    /// before this memory is zeroed, used again or freed.
    alignas(64) unsigned char walkStack[walkStackBytes] = {};
    std::string name; ///< the volume's name in the host configuration and in the watcher's tables
    sem_t lock = {};  ///< guards the catalogue and the state file; taken through FairLock
    std::mutex door;  ///< held while waiting for the lock
};
