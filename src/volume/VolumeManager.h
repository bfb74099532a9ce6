#pragma once

#include "core/StopRequest.h"
#include "watch/VolumeWatchListener.h"

#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>

class VolumeDBManager;
class VolumeManagerConfig;
class VolumePaths;
struct VolumeAccess;

/// One configured volume: owns its catalogue and state file, walks it on a thread of its own, purges it, and receives
/// its changes from the watcher.
///
/// Changes of what is not on the volume, and entries without a name or named like none, are ignored.
///
/// Life: constructed, initialize(), any number of walkOnce() and purgeIfRequired(), destroy(), deleted. Between
/// initialize() and destroy() whoever works on the catalogue holds the volume's lock. Over half a megabyte large:
/// always on the heap.
class VolumeManager : public VolumeWatchListener {
public:
    VolumeManager();
    /// Neither ends a walk nor closes anything: destroy() does.
    ~VolumeManager() override;
    VolumeManager(const VolumeManager&) = delete;
    VolumeManager& operator=(const VolumeManager&) = delete;

    // Changes: watcher thread. The caller does not hold the lock. They stand in FolderChanges.cpp and FileChanges.cpp.

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
    /// Ends the walk, waits for its thread, closes catalogue and state file. The threads of the watcher and of the
    /// purge have ended before, or do not know the volume: they are not waited for.
    void destroy();

    // Any thread

    /// Whether the walk thread is at work; false between walkOnce() and the first moments of the thread.
    bool isWalking();
    std::string& getName();
    /// Whether the appliance is in standby, the same for every volume: no walk starts then, and nothing is purged.
    bool isVolumeInStandby();
    /// Removes rows that have been marked deleted for `threshold` seconds, when that is due, see PurgeSchedule; takes
    /// the lock. Throws what catalogue and state file throw, a bare `const char*` too.
    void purgeIfRequired(int threshold);
    /// Logs that a walk or a purge of this volume ended in an exception; nothing while the daemon stops.
    void logFailedWalk();

    // The walk

    /// The body of the walk thread, without the lock: removes top-level folders that are no crawl paths any more, walks
    /// every crawl path, ends the thread. Without crawl paths also marks deleted what hangs on nothing and is gone.
    void walk();
    /// Brings the catalogue in line with the tree at `startPath` (absolute) and watches every folder in it, breadth
    /// first, see TreeWalk. `isRootWalk`: a row made for `startPath` itself becomes a root. On the walk thread, or on
    /// the watcher thread for one changed folder. The caller does not hold the lock.
    void walk(std::string& startPath, bool isRootWalk);
    /// True when the folder's row is there and up to date; false for what is no folder and on failure. Lock held.
    bool checkAndUpdateFolderEntryInTheDB(const std::string& path, const std::string& startPath, bool isRootWalk);
    /// True when the file's row is there and up to date; false for what is gone and on failure. Lock held.
    bool checkAndUpdateFileEntryInTheDB(const std::string& fileName, const std::string& fullPath);
    /// Whether an exclude string occurs anywhere in the absolute path, which has to be longer than the string.
    bool isExcludePath(const std::string& path);

private:
    static void* start_thread_once(void* manager);
    void reapWalkThread();
    void releaseOrphans();
    VolumePaths paths() const;
    VolumeAccess access();

#if defined(__SANITIZE_THREAD__)
    static constexpr std::size_t walkStackBytes = 2097152; // its runtime needs more than the walk
#else
    static constexpr std::size_t walkStackBytes = 524288;
#endif

    int volumePathLength = 0;          ///< bytes to cut off an absolute path for the catalogue
    std::atomic<bool> walking = false; ///< set by the walk thread, also cleared by the main thread; any thread asks
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
    sem_t lock = {};  ///< guards the catalogue and the writing of the state file; taken through FairLock
    std::mutex door;  ///< held by the thread that is the next to get the lock, see FairLock
};
