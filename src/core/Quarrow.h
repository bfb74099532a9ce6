#pragma once

#include "config/QuarrowConfig.h"
#include "core/StopRequest.h"

#include <semaphore.h>

#include <map>
#include <string>

class VolumeManager;

/// The daemon: owns one volume manager per configured volume, starts and stops everything, and runs the control loop
/// that walks the volumes again. Every operation is called on the main thread, without any lock. The signal handlers
/// call stop() and wakeupThread() in place, on that thread as well: main() lets signals in only while it waits.
class Quarrow {
public:
    /// The daemon of the process. The first call makes it: on the main thread, before other threads exist.
    static Quarrow* getInstance();

    Quarrow();

    /// Reads the host configuration, starts the watcher, every volume's first walk and the purge thread. A volume that
    /// cannot be initialised is logged and left out. Throws QRWException when already started. Throws QRWException when
    /// the configuration cannot be used, and a bare `const char*` when there is no inotify instance: nothing has been
    /// started then.
    void start();

    /// The control loop: waits for wakeupThread(), then walks and purges every idle volume, at most every 300 seconds.
    /// Returns after stop().
    void run();

    /// Stops every thread, closes every catalogue and lets run() return. Harmless before start() and when
    /// repeated.
    void stop();

    /// Lets one wait of the control loop return.
    void wakeupThread();

private:
    void addVolume(std::string name, std::string path);
    void walkIdleVolumes(time_t& lastWalkTime);

    static Quarrow* instance;

    sem_t semaphore; ///< what the control loop waits on
    bool started = false;
    StopRequest stopRequest;                        ///< ends the control loop
    std::map<std::string, VolumeManager*> managers; ///< owned
    QuarrowConfig* config;
};
