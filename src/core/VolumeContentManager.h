#pragma once

#include "core/Runnable.h"
#include "core/StopRequest.h"

#include <pthread.h>

#include <map>
#include <string>

class VolumeManager;

/// The purge thread. It waits on the SignalObject. At each wake-up it has every volume that is not being walked remove
/// its rows marked deleted, when that is due.
class VolumeContentManager : public Runnable {
public:
    /// The purge thread of the process. The first call makes the object: on the main thread, before other threads
    /// exist.
    static VolumeContentManager* getInstance();

    /// Called on the main thread before start(). The manager must live until stop() has returned. Replaces an earlier
    /// one of that name.
    void addVolumeManager(std::string& name, VolumeManager* manager);

    /// Called once, on the main thread. After a stop() the first call only takes the stop request back: isRunning() is
    /// true again, without a thread, and the next call starts one.
    void start() override;
    /// Main thread. Ends the thread before its next volume, waits for it, and forgets the managers. Harmless before
    /// start() and when repeated.
    void stop() override;
    bool isRunning() override; ///< any thread
    void run() override;

private:
    static void* start_thread(void* self);
    void purgeIdleVolumes();

    static VolumeContentManager* instance;

    pthread_t thread = {};
    bool threadStarted = false;                     ///< main thread only: there is something to join
    StopRequest stopRequest;                        ///< made and taken back by the main thread; any thread asks
    std::map<std::string, VolumeManager*> managers; ///< filled before the thread starts, cleared after it ended
};
