#include "watch/BurstHandling.h"

#include "core/SignalObject.h"
#include "core/StopRequest.h"
#include "core/Survival.h"
#include "watch/BurstReduction.h"
#include "watch/EventRouting.h"
#include "watch/WatchRegistry.h"

#include <syslog.h>

#include <ctime>
#include <new>
#include <set>
#include <string>

namespace {

void logFailure(const std::string& volume)
{
    syslog(LOG_LOCAL5 | LOG_ERR, "Got an exception during the walking of volumeManager %s\n", volume.c_str());
}

/// Reports the change to the listener of the lowest watch that has this path. Does nothing when no watch has it any
/// more: the folder was given another path meanwhile.
void handleChangedDir(const std::string& path, WatchRegistry& registry, EventRouting& routing)
{
    const WatchRegistry::Watch watch = registry.find(path);
    if (watch.descriptor == WatchRegistry::none)
        return;
    // The other folders are handled whatever this one throws.
    survive([&] { routing.deliverChange(watch.descriptor); }, [&](const char*) { logFailure(watch.volume); });
}

void handleChangedDirs(
    const std::set<std::string>& changedDirs, WatchRegistry& registry, EventRouting& routing, const StopRequest& stop)
{
    if (changedDirs.empty())
        return;
    // The prefix stays the smallest path of the burst and may occur anywhere in another path, on purpose: log readers
    // know which folders are skipped. The empty path (an event of an unknown watch) occurs in every path, so it makes
    // the rest of its burst skipped.
    const std::string prefix = *changedDirs.begin();
    for (auto dir = changedDirs.begin(); dir != changedDirs.end() && !stop.isMade(); ++dir) {
        if (dir != changedDirs.begin() && dir->find(prefix) != std::string::npos)
            syslog(LOG_LOCAL5 | LOG_INFO, "Skipping because %s is in %s\n", dir->c_str(), prefix.c_str());
        else
            handleChangedDir(*dir, registry, routing);
    }
}

} // namespace

void handleBurst(const Burst& burst, WatchRegistry& registry, EventRouting& routing, const StopRequest& stop)
{
    syslog(LOG_LOCAL5 | LOG_INFO, "Processed %d events\n", burst.eventCount);
    if (burst.eventCount > 0)
        syslog(LOG_LOCAL5 | LOG_INFO, "Rate of inotify event %ld\n",
            static_cast<long>(burst.readMillis / burst.eventCount));
    const time_t handlingStart = std::time(nullptr);
    try {
        handleChangedDirs(burst.changedDirs, registry, routing, stop);
    } catch (const std::bad_alloc&) {
        logFailure("");
    }
    syslog(LOG_LOCAL5 | LOG_INFO, "Handled %d events in %d seconds ", burst.eventCount,
        static_cast<int>(std::time(nullptr) - handlingStart));
    syslog(LOG_LOCAL5 | LOG_INFO, "======\n");
    if (burst.position > 0)
        SignalObject::getInstance()->notify();
}
