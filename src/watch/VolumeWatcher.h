#pragma once

#include "core/Runnable.h"
#include "core/StopRequest.h"
#include "watch/EventRouting.h"
#include "watch/WatchRegistry.h"

#include <pthread.h>
#include <sys/types.h>

#include <string>

struct Burst;
struct inotify_event;
class VolumeWatchListener;

/// Follows every volume through one inotify instance: a thread collects events in bursts and has each changed folder
/// looked at again by the listener of its volume.
class VolumeWatcher : public Runnable {
public:
    /// The watcher of the process. First called on the main thread before other threads exist; may throw as
    /// initialize() does.
    static VolumeWatcher* getInstance();

    VolumeWatcher();

    // Registry: any thread, but for initialize()

    /// Opens the inotify instance and returns its descriptor. Throws a bare `const char*` when there is none to have.
    /// Not to be called while the thread runs.
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
    /// Watcher thread. Waits up to 5 seconds for further events. False when none came, when the stop came instead, and
    /// always when select() cannot take the descriptor.
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
    static void* start_thread(void* self);
    void collectBurst(Burst& burst);
    ssize_t readEvents();
    bool waitForMore(Burst& burst);
    void tickleFirstFolder();
    void wakeThread();

    static VolumeWatcher* instance;

    WatchRegistry registry; ///< opened before the thread starts, closed after it ended
    EventRouting routing { registry };
    pthread_t thread = {};
    bool threadStarted = false; ///< main thread only: there is something to join
    StopRequest stopRequest;    ///< made by the main thread, asked by the watcher thread
    int stopEvent = -1; ///< an eventfd that is readable from the stop on, -1 when none was to be had; as `registry`
    char eventBuffer[262144] = {}; ///< watcher thread only
};
