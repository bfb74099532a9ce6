#pragma once

#include "volume/VolumePaths.h"

#include <semaphore.h>

#include <mutex>
#include <string>

class StopRequest;
class VolumeDBManager;

/// What everything that works on a volume shares. A view of parts of its manager, for one piece of work between
/// initialize() and destroy().
struct VolumeAccess {
    /// Logs that a walk or a purge of the volume ended in an exception; nothing while the daemon stops.
    void logFailedWalk() const;

    const VolumePaths paths;
    std::string& name;                ///< nobody changes it; the watcher's interface wants it so
    VolumeDBManager* const dbManager; ///< used under the lock; nullptr outside initialize() and destroy()
    const StopRequest& stopRequest;
    std::mutex& door; ///< these two are for FairLock
    sem_t* const lock;
};
