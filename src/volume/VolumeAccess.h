#pragma once

#include "volume/VolumePaths.h"

#include <semaphore.h>

#include <mutex>
#include <string>

class StopRequest;
class VolumeDBManager;

/// The parts of a volume's manager that all work on the volume needs. The object only refers to them, and is made for
/// one piece of work between initialize() and destroy().
struct VolumeAccess {
    /// Logs that work on the volume ended in an exception. Logs nothing while the daemon stops. Any thread.
    void logFailedWalk() const;

    const VolumePaths paths;
    std::string& name;                ///< never changed; not const because VolumeWatcher takes std::string&
    VolumeDBManager* const dbManager; ///< used with the lock held
    StopRequest& stopRequest;
    std::mutex& door; ///< this and `lock` are for FairLock
    sem_t* const lock;
};
