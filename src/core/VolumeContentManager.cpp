#include "core/VolumeContentManager.h"

#include "config/QuarrowConfig.h"
#include "core/IdleVolumes.h"
#include "core/SignalMask.h"
#include "core/SignalObject.h"
#include "volume/VolumeManager.h"

#include <syslog.h>

VolumeContentManager* VolumeContentManager::instance = nullptr;

VolumeContentManager* VolumeContentManager::getInstance()
{
    if (instance == nullptr)
        instance = new VolumeContentManager;
    return instance;
}

void VolumeContentManager::addVolumeManager(std::string& name, VolumeManager* manager) { managers[name] = manager; }

void VolumeContentManager::start()
{
    if (!stopRequest.isMade())
        threadStarted = pthread_create(&thread, nullptr, start_thread, this) == 0;
    stopRequest.takeBack(); // on purpose also when no thread was started, see the header
}

void VolumeContentManager::stop()
{
    stopRequest.make();
    SignalObject::getInstance()->notify();
    if (threadStarted) { // a second stop, or one before the thread exists, has nothing to join
        threadStarted = false;
        const int result = pthread_join(thread, nullptr);
        syslog(LOG_LOCAL5 | LOG_INFO, "The thread join has returned with a return code of %d \n", result);
    }
    managers.clear();
}

bool VolumeContentManager::isRunning() { return !stopRequest.isMade(); }

void* VolumeContentManager::start_thread(void* self)
{
    static_cast<VolumeContentManager*>(self)->run();
    return nullptr;
}

void VolumeContentManager::run()
{
    blockAllSignals();
    while (!stopRequest.isMade()) {
        SignalObject::getInstance()->wait(); // counts: a notify() during a pass is not lost
        if (!stopRequest.isMade())
            purgeIdleVolumes();
    }
    pthread_exit(nullptr); // unwinds by force, so a catch (...) above it would abort the daemon
}

void VolumeContentManager::purgeIdleVolumes()
{
    forEachIdleVolume(managers, stopRequest,
        [](VolumeManager& manager) { manager.purgeIfRequired(QuarrowConfig::getInstance()->getPurgeThreshold()); });
}
