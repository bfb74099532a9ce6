#pragma once

#include "core/StopRequest.h"
#include "core/Survival.h"
#include "volume/VolumeManager.h"

#include <map>
#include <string>

/// Calls `action(manager)` for each volume that is not being walked, in the order of their names, until a stop is
/// requested. A failure of one volume is logged, and the next one follows. The caller holds no volume's lock. The main
/// thread and the purge thread both call this, each with a map of its own.
template <typename Action>
void forEachIdleVolume(
    const std::map<std::string, VolumeManager*>& managers, const StopRequest& stopRequest, const Action& action)
{
    for (const auto& entry : managers) {
        if (stopRequest.isMade())
            return;
        VolumeManager* manager = entry.second;
        if (manager == nullptr || manager->isWalking())
            continue;
        survive([&action, manager] { action(*manager); }, [manager](const char*) { manager->logFailedWalk(); });
    }
}
