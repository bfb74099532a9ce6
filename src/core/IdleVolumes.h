#pragma once

#include "core/StopRequest.h"
#include "core/Survival.h"
#include "volume/VolumeManager.h"

#include <map>
#include <string>

/// Calls `action(manager)` for one volume after the other that is not being walked, until a stop is asked for. What
/// goes wrong with one volume is logged and keeps no other from its turn.
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
