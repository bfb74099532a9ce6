#pragma once

#include "core/Runnable.h"
#include "watch/PathIndex.h"

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

struct inotify_event;
class VolumeWatchListener;

/// Follows every volume through one inotify instance: a registry of watched folders and of the volumes' listeners,
/// and a thread that collects events in bursts and has each changed folder looked at again.
class VolumeWatcher : public Runnable {
public:
    /// The watcher of the process. First called on the main thread before other threads exist; may throw as
    /// initialize() does.
    static VolumeWatcher* getInstance();

    VolumeWatcher();

    // Registry: any thread

    /// Opens the inotify instance and returns its descriptor. Throws a bare `const char*` when there is none to have.
    int initialize();
    /// From now on `listener`, which stays its owner's, receives the changes of the volume; replaces an earlier one.
    void addVolumeWatchListener(std::string& volumeName, VolumeWatchListener* listener);
    /// The volume's watches stay; their events are logged and dropped.
    void removeVolumeWatchListener(std::string& volumeName);
    /// Watches the folder for the volume. A folder that is watched already is only known by its new path from now on.
    /// Returns the watch descriptor, or what the kernel returned instead: then the folder is not watched, silently.
    int addDirectoryToWatch(std::string& volumeName, std::string& path);
    /// Ends the watch of this one folder; those below it stay. Returns the descriptor, 0 when the path is not watched.
    int removeDirectoryToWatch(std::string& path);
    /// The number of entries in the registry.
    int numWatches();

    // The thread

    /// Starts the thread; a watcher that was stopped is not started again.
    void start() override;
    /// Main thread. Wakes and ends the thread, waits for it, ends every watch and forgets everything.
    void stop() override;
    bool isRunning() override;
    void run() override;
    /// Touches ".tickle" in the folder, which makes an event on its watch.
    void tickle(std::string& path);
    /// Waits up to 5 seconds for further events.
    bool isReadyForRead();

    // Routing of one kernel event to the listener of its volume: watcher thread. An event whose listener or folder is
    // not known is logged.

    void handleChangeFolder(inotify_event* event);
    void handleNewFolder(inotify_event* event);
    void handleNewFile(inotify_event* event);
    void handleModifyFile(inotify_event* event);
    void handleDeleteFile(inotify_event* event);
    /// Also ends the watch of the folder, whether or not anybody was told.
    void handleDeleteFolder(inotify_event* event);
    /// A move from one volume to another is logged and not delivered.
    void handleMoveFile(inotify_event* from, inotify_event* to);
    /// As handleMoveFile(); also moves the watch of the folder to its new path, whether or not anybody was told.
    void handleMoveFolder(inotify_event* from, inotify_event* to);

private:
    /// Whom an event goes to.
    struct Target {
        std::string volume;
        std::string dir;
        VolumeWatchListener* listener = nullptr;

        bool isComplete() const { return listener != nullptr && !dir.empty(); }
    };

    static void* start_thread(void* self);
    void collectBurst(std::set<std::string>& changedDirs, int& eventCount, int& readMillis, int& position);
    void handleChangedDirs(const std::set<std::string>& changedDirs);
    void handleChangedDir(const std::string& path);
    void tickleFirstFolder();
    void interruptRead();
    ssize_t readEvents();
    const std::string& label(int descriptor, const std::string& path);
    void forget(int descriptor);
    const std::string& entryOf(int descriptor);
    std::string pathOf(int descriptor);
    Target targetOf(int descriptor);
    using EntryOperation = void (VolumeWatchListener::*)(std::string& dir, const char* name);
    using MoveOperation
        = void (VolumeWatchListener::*)(std::string&, const char* fromName, std::string& toDir, const char* toName);
    void deliver(EntryOperation operation, const inotify_event* event);
    void deliverMove(MoveOperation operation, const inotify_event* from, const inotify_event* to);

    static VolumeWatcher* instance;

    pthread_t thread = {};
    bool threadStarted = false;         ///< main thread only: there is something to join
    std::atomic<bool> stopFlag = false; ///< set by the main thread, polled by the watcher thread
    int inotifyFd = -1;                 ///< set before the thread starts, closed after it ended
    int stopEvent = -1; ///< likewise; an eventfd that ends the thread's wait, -1 when none was to be had
    /// Guards the maps below, across the kernel call that goes with a change of them: an event must never meet an
    /// unknown descriptor. Never held across a listener call, since a listener walks and a walk adds watches. Taken
    /// after a volume's lock, never before it.
    std::mutex registryMutex;
    std::map<int, std::string> watchVolumes;               ///< watch descriptor -> volume name
    std::map<int, std::string> watchPaths;                 ///< watch descriptor -> absolute folder path
    PathIndex watchesByPath { watchPaths };                ///< of the paths above
    std::map<std::string, VolumeWatchListener*> listeners; ///< volume name -> listener, borrowed
    char eventBuffer[262144] = {};                         ///< watcher thread only
};
