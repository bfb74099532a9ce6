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

/// Follows every volume through one inotify instance. A thread collects the events in bursts and reports each changed
/// folder to the listener of its volume.
class VolumeWatcher : public Runnable {
public:
    /// The watcher of the process. The first call makes it: on the main thread, before other threads exist. Throws what
    /// initialize() throws; the watcher then exists without an inotify instance.
    static VolumeWatcher* getInstance();

    VolumeWatcher();

    // The registry. Every operation but initialize() may be called on any thread, with or without a volume's lock.

    /// Opens the inotify instance and returns its descriptor. Throws a bare `const char*` when the system has none to
    /// give. Not to be called while the thread runs.
    int initialize();
    /// Makes `listener` the receiver of the volume's changes, in place of an earlier one. It must live until it is
    /// removed and the thread has ended.
    void addVolumeWatchListener(std::string& volumeName, VolumeWatchListener* listener);
    /// The volume's watches stay, and their events are logged and dropped. Does not wait for a call to the listener
    /// that has already begun.
    void removeVolumeWatchListener(std::string& volumeName);
    /// Watches the folder for the volume. A folder that is watched already keeps its watch, which gets the new path and
    /// volume. Returns the watch descriptor. When the kernel gives none, returns the kernel's result (below 1), logs
    /// nothing, and the folder is not watched.
    int addDirectoryToWatch(std::string& volumeName, std::string& path);
    /// Ends the watch of this one folder; the watches of folders below it stay. When several watches have the path,
    /// ends the one with the lowest descriptor. Returns the descriptor, or 0 when the path is not watched.
    int removeDirectoryToWatch(std::string& path);
    /// The number of entries in the registry. Events of unknown watches have made some of them, see WatchRegistry.
    int numWatches();

    // The thread

    /// Starts the thread. Called once, on the main thread. Does nothing after stop().
    void start() override;
    /// Main thread. Ends the thread and waits for it, ends every watch, closes the inotify instance and forgets all
    /// folders and listeners. Harmless before start() and when repeated.
    void stop() override;
    bool isRunning() override; ///< any thread
    void run() override;
    /// Touches ".tickle" in the folder, which makes an event on the folder's watch. Any thread, without a lock. Throws
    /// std::bad_alloc.
    void tickle(std::string& path);
    /// Watcher thread. Waits up to 5 seconds for further events. True when there are some. False when none came, when a
    /// stop was requested, and when select() failed or cannot take the descriptor.
    bool isReadyForRead();

    // Routing of one kernel event to the listener of its volume, on the caller's thread and without any lock. When the
    // listener or the folder is not known, the event is logged instead. What the listener throws passes through. The
    // watcher's own thread does not come through here; these are for programs that have the single events.

    void handleChangeFolder(inotify_event* event);
    void handleNewFolder(inotify_event* event);
    void handleNewFile(inotify_event* event);
    void handleModifyFile(inotify_event* event);
    void handleDeleteFile(inotify_event* event);
    /// Then ends the watch of the folder, also when there was no listener to call.
    void handleDeleteFolder(inotify_event* event);
    /// A move from one volume to another is logged and not delivered.
    void handleMoveFile(inotify_event* from, inotify_event* to);
    /// As handleMoveFile(). Then gives the watch of the folder its new path, also when there was no listener to call.
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
    StopRequest stopRequest;    ///< made by the main thread; any thread asks
    /// An eventfd that becomes readable with the stop, -1 when none could be made. Made before the thread starts,
    /// closed after it ended.
    int stopEvent = -1;
    char eventBuffer[262144] = {}; ///< watcher thread only
};
