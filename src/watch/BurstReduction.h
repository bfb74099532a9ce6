#pragma once

#include "core/StopRequest.h"

#include <cstddef>
#include <functional>
#include <set>
#include <string>

/// What the reads of one burst have come to so far.
struct Burst {
    std::set<std::string> changedDirs; ///< the folders to be handled
    int eventCount = 0;                ///< records walked
    int readMillis = 0;                ///< time spent in all reads but the first
    int position = 0;                  ///< bytes walked of the last read alone
};

/// Reduces the records of one read (`length` bytes) to the folders they came from, and adds them to the burst.
/// `pathOf` maps a watch descriptor to its folder. Walks no further record once the stop is made. When `pathOf` throws,
/// the folders found so far stay in the burst and nothing else is added.
///
/// The first record adds its folder. After that, each change of descriptor adds the folder that the records leave, not
/// the one they enter. So the last run of a read adds nothing unless it is the only one: a folder that only this run
/// tells of waits for its next event or for a full walk.
void reduceBurst(const char* buffer, std::size_t length, const std::function<std::string(int descriptor)>& pathOf,
    const StopRequest& stop, Burst& burst);
