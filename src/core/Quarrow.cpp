#include "core/Quarrow.h"

#include "core/IdleVolumes.h"
#include "core/QRWException.h"
#include "core/SignalMask.h"
#include "core/SignalObject.h"
#include "core/VolumeContentManager.h"
#include "volume/VolumeManager.h"
#include "watch/VolumeWatcher.h"

#include <syslog.h>

#include <ctime>

Quarrow* Quarrow::instance = nullptr;

Quarrow* Quarrow::getInstance()
{
    if (instance == nullptr)
        instance = new Quarrow;
    return instance;
}

Quarrow::Quarrow()
    : config(QuarrowConfig::getInstance())
{
    // 1 on purpose: the first wait of run() returns at once, and log readers know the "Woke up too soon" that follows.
    sem_init(&semaphore, 0, 1);
}

void Quarrow::start()
{
    if (started)
        throw QRWException("Already started");
    if (!config->load())
        throw QRWException("Failed in reading the config file");

    // getInstance() has no lock. The threads that are started below share these objects, so they are made before.
    SignalObject::getInstance();
    VolumeContentManager::getInstance();

    VolumeWatcher::getInstance()->start();
    const std::map<std::string, std::string> volumes = config->getQuarrowVolumes();
    for (const auto& volume : volumes)
        addVolume(volume.first, volume.second);
    VolumeContentManager::getInstance()->start();
    started = true;
}

void Quarrow::addVolume(std::string name, std::string path)
{
    if (!path.empty() && path.back() == '/')
        path.pop_back();

    auto* manager = new VolumeManager;
    if (!manager->initialize(name, path)) {
        syslog(LOG_LOCAL5 | LOG_ERR, "Could not initialize the manager for the volume %s\n", name.c_str());
        manager->destroy();
        delete manager;
        return;
    }
    managers[name] = manager;
    VolumeWatcher::getInstance()->addVolumeWatchListener(name, manager);
    VolumeContentManager::getInstance()->addVolumeManager(name, manager);
    if (!manager->isWalking())
        manager->walkOnce();
}

void Quarrow::run()
{
    time_t lastWalkTime = std::time(nullptr);
    while (!stopRequest.isMade()) {
        syslog(LOG_LOCAL5 | LOG_INFO, "Going to sleep.\n");
        int waited;
        {
            // The handlers run here, and nowhere else in this loop. A signal between the opening and sem_wait() is not
            // lost: its handler posts the semaphore, so the wait returns at once.
            const ServedSignals open(ServedSignals::open);
            waited = sem_wait(&semaphore);
        }
        if (waited == 0)
            syslog(LOG_LOCAL5 | LOG_INFO, "We received a wake up message from the signal handler\n");
        else
            syslog(LOG_LOCAL5 | LOG_INFO, "Woke up after the sleep at %d.\n", static_cast<int>(std::time(nullptr)));

        const int elapsed = static_cast<int>(std::time(nullptr) - lastWalkTime);
        if (elapsed <= 299) { // whole seconds: the next walk may begin once 300 have passed
            syslog(LOG_LOCAL5 | LOG_INFO, "Woke up too soon. Going back %d === %d\n", static_cast<int>(lastWalkTime),
                elapsed);
            continue;
        }
        walkIdleVolumes(lastWalkTime);
    }
}

void Quarrow::walkIdleVolumes(time_t& lastWalkTime)
{
    forEachIdleVolume(managers, stopRequest, [&lastWalkTime](VolumeManager& manager) {
        manager.walkOnce();
        manager.purgeIfRequired(QuarrowConfig::getInstance()->getPurgeThreshold());
        lastWalkTime = std::time(nullptr);
    });
}

void Quarrow::stop()
{
    // First of all: VolumeWatcher::stop() joins the watcher thread, and a walk on it ends early only by this request.
    for (const auto& entry : managers) {
        if (entry.second != nullptr)
            entry.second->requestStop();
    }
    VolumeWatcher::getInstance()->stop();
    VolumeContentManager::getInstance()->stop();
    started = false;
    stopRequest.make();
    for (auto entry = managers.begin(); entry != managers.end();) {
        const auto current = entry++;
        if (current->second != nullptr) {
            current->second->destroy();
            delete current->second;
            managers.erase(current);
        }
    }
    managers.clear();
    sem_post(&semaphore);
}

void Quarrow::wakeupThread() { sem_post(&semaphore); }
