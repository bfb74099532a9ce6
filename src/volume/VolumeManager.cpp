#include "volume/VolumeManager.h"

#include "config/VolumeManagerConfig.h"
#include "core/SignalMask.h"
#include "core/Survival.h"
#include "db/VolumeDBManager.h"
#include "volume/EntryChecks.h"
#include "volume/FairLock.h"
#include "volume/PurgeSchedule.h"
#include "volume/TopLevelFolders.h"
#include "volume/TreeWalk.h"
#include "volume/VolumeAccess.h"
#include "watch/VolumeWatcher.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <list>

VolumeManager::VolumeManager() = default;

VolumeManager::~VolumeManager() = default;

VolumePaths VolumeManager::paths() const { return VolumePaths(name, volumePath, volumePathLength); }

VolumeAccess VolumeManager::access() { return { paths(), name, dbManager, stopRequest, door, &lock }; }

// Life cycle

bool VolumeManager::initialize(std::string& volumeName, std::string& path)
{
    suspended = false;
    online = true;
    walking = false;
    stopRequest.takeBack();
    sem_init(&lock, 0, 1);
    initialized = true;
    dbManager = new VolumeDBManager(stopRequest);
    name = volumeName;
    volumePath = path;
    volumePathLength = static_cast<int>(volumePath.length());
    dbPath = path + "/" + ".quarrow" + "/" + "quarrow.db";
    volumeConfigPath = path + "/" + ".quarrow" + "/" + "quarrow-volume.xml";
    // On purpose one text for both: it names the state file and shows no path, and log readers know it.
    const auto open = [this] {
        dbManager->open(dbPath.c_str());
        volumeConfig = new VolumeManagerConfig(volumeConfigPath);
    };
    return survive(
        open, [](const char* text) { syslog(LOG_LOCAL5 | LOG_ERR, "Could not open the volume cfg file %s\n", text); });
}

void VolumeManager::walkOnce()
{
    if (stopRequest.isMade() || isVolumeInStandby()) {
        walking = false; // no thread is started, so nothing walks
        return;
    }
    reapWalkThread();                      // before the stack is zeroed: the C library keeps the thread's record there
    pthread_attr_destroy(&walkThreadAttr); // of the walk before; of the first walk it is all zero, which is harmless
    pthread_attr_init(&walkThreadAttr);
    std::memset(walkStack, 0, sizeof walkStack);
    // When this fails, the thread gets a stack from the C library, and the walk works on that too.
    // cppcheck-suppress ignoredReturnValue
    pthread_attr_setstack(&walkThreadAttr, walkStack, sizeof walkStack);
    walkThreadStarted = pthread_create(&walkThread, &walkThreadAttr, start_thread_once, this) == 0;
}

void VolumeManager::reapWalkThread()
{
    if (!walkThreadStarted)
        return;
    walkThreadStarted = false;
    pthread_join(walkThread, nullptr);
}

void* VolumeManager::start_thread_once(void* manager)
{
    auto* self = static_cast<VolumeManager*>(manager);
    survive([self] { self->walk(); }, [self](const char*) { self->logFailedWalk(); });
    self->walking = false;
    return nullptr;
}

void VolumeManager::requestStop() { stopRequest.make(); }

void VolumeManager::destroy()
{
    requestStop();
    VolumeWatcher::getInstance()->removeVolumeWatchListener(name);
    while (isWalking())
        sleep(1);
    reapWalkThread(); // also waits for a thread that was created and has not yet set `walking`
    delete volumeConfig;
    volumeConfig = nullptr;
    delete dbManager;
    dbManager = nullptr;
    if (initialized)
        sem_destroy(&lock);
    initialized = false;
}

bool VolumeManager::isWalking() { return walking; }

std::string& VolumeManager::getName() { return name; }

bool VolumeManager::isVolumeInStandby()
{
    struct stat64 status;
    return stat64("/tmp/standby", &status) == 0;
}

void VolumeManager::purgeIfRequired(int threshold)
{
    if (isVolumeInStandby()) {
        syslog(LOG_LOCAL5 | LOG_INFO, "Volume in standby, ignoring purge");
        return;
    }
    const PurgeSchedule schedule(threshold);
    const int now = static_cast<int>(std::time(nullptr));
    if (!schedule.isDue(now, volumeConfig->getLastPurgeTime()))
        return;

    const FairLock held(door, &lock);
    syslog(LOG_LOCAL5 | LOG_INFO, "Purging the DB at %d\n", now);
    dbManager->purgeDeletedFiles(threshold);
    dbManager->purgeDeletedFolders(threshold);
    volumeConfig->setLastPurgeTime(schedule.timeToRecord(now));
    dbManager->checkpoint();
    syslog(LOG_LOCAL5 | LOG_INFO, "Done with the purge %d\n", static_cast<int>(std::time(nullptr)));
}

void VolumeManager::logFailedWalk() { access().logFailedWalk(); }

// The walk

void VolumeManager::walk()
{
    blockAllSignals();
    walking = true;
    {
        releaseOrphans();
        const VolumeAccess volume = access();
        const TopLevelFolders topLevelFolders(volume);
        const std::list<std::string> crawlPaths = volume.paths.crawlPaths();
        if (!crawlPaths.empty()) {
            topLevelFolders.removeAllBut(crawlPaths);
            for (const std::string& crawlPath : crawlPaths) {
                std::string startPath = volumePath + crawlPath;
                walk(startPath, true);
            }
        } else {
            syslog(LOG_LOCAL5 | LOG_INFO, "Crawl paths is empty so starting at %s\n", volumePath.c_str());
            walk(volumePath, true);
            topLevelFolders.removeStrays();
        }
    }
    walking = false;
    pthread_exit(nullptr); // unwinds by force, so a catch (...) above it would abort the daemon
}

/// Until it has succeeded once: only an earlier release leaves such rows.
void VolumeManager::releaseOrphans()
{
    if (orphansReleased)
        return;
    const FairLock held(door, &lock);
    orphansReleased = dbManager->releaseOrphans();
}

void VolumeManager::walk(std::string& startPath, bool isRootWalk) { TreeWalk(access(), startPath, isRootWalk).run(); }

bool VolumeManager::checkAndUpdateFolderEntryInTheDB(
    const std::string& path, const std::string& startPath, bool isRootWalk)
{
    const VolumeAccess volume = access();
    return EntryChecks(volume).checkFolder(path, startPath, isRootWalk);
}

bool VolumeManager::checkAndUpdateFileEntryInTheDB(const std::string& fileName, const std::string& fullPath)
{
    const VolumeAccess volume = access();
    return EntryChecks(volume).checkFile(fileName, fullPath);
}

bool VolumeManager::isExcludePath(const std::string& path) { return paths().isExcludePath(path); }
