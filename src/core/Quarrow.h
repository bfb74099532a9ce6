#pragma once

#include "config/QuarrowConfig.h"
#include "core/StopRequest.h"

#include <semaphore.h>

#include <map>
#include <string>

class VolumeManager;

/// The daemon: owns one volume manager per configured volume, starts and stops everything, and runs the control loop
/// that walks the volumes again. All operations belong to the main thread; its signal handlers call stop() and
/// wakeupThread() in place, while the loop is at rest.
class Quarrow {
public:
    /// First called on the main thread before other threads exist.
    static Quarrow* getInstance();

    Quarrow();

    /// Reads the host configuration, starts the watcher, every volume's first walk and the purge thread. A volume that
    /// cannot be initialised is logged and left out. Throws QRWException when already started, or, with nothing
    /// started, when the configuration cannot be used.
    void start();

    /// The control loop: sleeps until wakeupThread(), then walks and purges every idle volume, at most every 300
    /// seconds. Returns after stop().
    void run();

    /// Stops every thread, closes every catalogue and ends run(). Harmless before start() and when repeated.
    void stop();

    /// Wakes the control loop.
    void wakeupThread();

private:
    void addVolume(std::string name, std::string path);
    void walkIdleVolumes(time_t& lastWalkTime);

    static Quarrow* instance;

    sem_t semaphore;
    bool started = false;
    StopRequest stopRequest;
    std::map<std::string, VolumeManager*> managers; ///< owned
    QuarrowConfig* config;
};
