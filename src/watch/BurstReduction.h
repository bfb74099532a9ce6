#pragma once

#include "core/StopRequest.h"

#include <cstddef>
#include <functional>
#include <set>
#include <string>

/// The result of the reads of one burst so far.
struct Burst {
    std::set<std::string> changedDirs; ///< the folders to be handled
    int eventCount = 0;                ///< records walked
    int readMillis = 0;                ///< time spent in all reads but the first
    int position = 0;                  ///< bytes of the last read whose records were walked
};

/// Reduces the records of one read (`length` bytes) to the folders they came from, and adds these to the burst.
/// `pathOf` maps a watch descriptor to its folder. Once a stop is requested no further record is walked. What `pathOf`
/// throws passes through: the folders found so far then stay in the burst, the counts do not include this read.
///
/// The first record always adds its folder. After that, each change of descriptor adds the folder that the records
/// leave, not the one they enter. So the last run of records in a read adds nothing unless it is also the first run. A
/// folder that only the last run reports waits for its next event or for a full walk.
void reduceBurst(const char* buffer, std::size_t length, const std::function<std::string(int descriptor)>& pathOf,
    const StopRequest& stop, Burst& burst);
