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
/// Life: constructed, initialize(), any number of walkOnce() and purgeIfRequired(), destroy(), deleted. Between
/// initialize() and destroy() every thread that works on the catalogue holds the volume's lock. An object is over half
/// a megabyte large, so it is always made on the heap.
class VolumeManager : public VolumeWatchListener {
public:
    VolumeManager();
    /// Neither ends a walk nor closes anything: destroy() does that, and is called before.
    ~VolumeManager() override;
    VolumeManager(const VolumeManager&) = delete;
    VolumeManager& operator=(const VolumeManager&) = delete;

    // Changes. Called between initialize() and destroy(), in the daemon on the watcher thread. The caller does not hold
    // the lock. A path outside the volume, and a name that no entry can have, are ignored. A failure of the catalogue
    // is logged, unless a stop is requested, and not thrown. The sources are FolderChanges.cpp and FileChanges.cpp.

    void handleChangeFolder(std::string& path) override;
    void handleNewFolder(std::string& dir, const char* entryName) override;
    void handleNewFile(std::string& dir, const char* entryName) override;
    void handleMoveFolder(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName) override;
    void handleMoveFile(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName) override;
    void handleDeleteFolder(std::string& dir, const char* entryName) override;
    void handleDeleteFile(std::string& dir, const char* entryName) override;
    void handleModifyFile(std::string& dir, const char* entryName) override;

    // Life cycle: main thread

    /// Opens or makes the catalogue and the state file in `path`/.quarrow. `path` is absolute, without a trailing
    /// slash. False, with a log line, when either cannot be used: then only destroy() may follow. Before any other
    /// thread knows the object.
    bool initialize(std::string& volumeName, std::string& path);
    /// Starts one walk thread and returns. Starts none after requestStop() and in standby. Not called while
    /// isWalking(). Waits for the thread of the walk before.
    void walkOnce();
    /// Asks walks, busy waits and long statements to end soon, and returns at once. destroy() waits for them.
    void requestStop();
    /// Ends the walk, waits for its thread, closes the catalogue and the state file. It does not wait for the watcher
    /// and the purge thread: both have ended before, or do not know the volume.
    void destroy();

    // Any thread

    /// Whether the walk thread is at work. Still false in the moment between walkOnce() and the thread's first step.
    bool isWalking();
    std::string& getName();
    /// Whether the appliance is in standby: no walk starts then, and nothing is purged. The same for every volume.
    bool isVolumeInStandby();
    /// When a purge is due (see PurgeSchedule), removes the rows that were marked deleted more than `threshold` seconds
    /// ago. Takes the lock, so the caller does not hold it. Two threads that find a purge due at the same moment both
    /// purge, one after the other. Throws DBOperationException, and the state file's bare `const char*`.
    void purgeIfRequired(int threshold);
    /// Logs that work on the volume ended in an exception. Logs nothing while the daemon stops.
    void logFailedWalk();

    // The walk

    /// The body of the walk thread. With crawl paths: marks the top-level folders deleted that are no crawl paths any
    /// more, then walks every crawl path. Without: walks the whole volume, then marks the top-level folders deleted
    /// that are gone. Ends the thread. The caller does not hold the lock. Throws DBOperationException when the
    /// top-level folders cannot be listed.
    void walk();
    /// Brings the catalogue in line with the tree at `startPath` (absolute) and watches every folder in it, see
    /// TreeWalk. With `isRootWalk` a new row for `startPath` itself becomes a root. The caller does not hold the lock.
    void walk(std::string& startPath, bool isRootWalk);
    /// See EntryChecks::checkFolder(). The caller holds the lock.
    bool checkAndUpdateFolderEntryInTheDB(const std::string& path, const std::string& startPath, bool isRootWalk);
    /// See EntryChecks::checkFile(). The caller holds the lock.
    bool checkAndUpdateFileEntryInTheDB(const std::string& fileName, const std::string& fullPath);
    /// Whether an exclude string of the volume occurs anywhere in the absolute path and is shorter than the path.
    bool isExcludePath(const std::string& path);

private:
    static void* start_thread_once(void* manager);
    void reapWalkThread();
    void releaseOrphans();
    VolumePaths paths() const;
    VolumeAccess access();

#if defined(__SANITIZE_THREAD__)
    static constexpr std::size_t walkStackBytes = 2097152; // with less, no walk starts under this sanitizer
#else
    static constexpr std::size_t walkStackBytes = 524288;
#endif

    int volumePathLength = 0;          ///< bytes to cut off an absolute path for the catalogue
    std::atomic<bool> walking = false; ///< set by the walk thread, also cleared by the main thread; any thread asks
    StopRequest stopRequest;           ///< the catalogue's too; the main thread takes it back
    bool orphansReleased = false;      ///< walk thread only
    bool suspended = false;            ///< this and `online` are set by initialize(), and nothing reads them
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
    /// The walk thread's stack. The C library keeps the thread's record at the top of it, so a finished thread is
    /// joined before this memory is zeroed, used again or freed.
    alignas(64) unsigned char walkStack[walkStackBytes] = {};
    std::string name; ///< the volume's name in the host configuration and in the watcher's tables
    sem_t lock = {};  ///< guards the catalogue and setLastPurgeTime(); taken through FairLock
    std::mutex door;  ///< held by the thread that gets the lock next, see FairLock
};
