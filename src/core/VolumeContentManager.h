#pragma once

#include "core/Runnable.h"
#include "core/StopRequest.h"

#include <pthread.h>

#include <map>
#include <string>

class VolumeManager;

/// The purge thread: woken through the SignalObject, it asks every volume that is not walking whether rows marked
/// deleted are due to be removed.
class VolumeContentManager : public Runnable {
public:
    /// First called on the main thread before other threads exist.
    static VolumeContentManager* getInstance();

    /// Called on the main thread before start(). The manager stays its owner's.
    void addVolumeManager(std::string& name, VolumeManager* manager);

    void start() override;
    /// Ends the thread at its next volume, waits for it, and forgets the managers.
    void stop() override;
    bool isRunning() override;
    void run() override;

private:
    static void* start_thread(void* self);
    void purgeIdleVolumes();

    static VolumeContentManager* instance;

    pthread_t thread = {};
    bool threadStarted = false; ///< main thread only: there is something to join
    StopRequest stopRequest;
    std::map<std::string, VolumeManager*> managers; ///< filled before the thread starts, cleared after it ended
};
