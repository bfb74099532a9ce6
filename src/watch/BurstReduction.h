#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <set>
#include <string>

/// What one read of the inotify descriptor came down to.
struct BurstReduction {
    int events = 0;   ///< records walked
    int position = 0; ///< bytes walked
};

/// Reduces the records of one read (`length` bytes, not 0) to the folders they came from, added to `changedDirs`.
/// `pathOf` maps a watch descriptor to its folder. Ends early when `stopFlag` is set.
///
/// Only changes of descriptor add folders, and they add the folder that the records leave, not the one they enter: a
/// folder that only the last records of a read tell of waits for its next event or for a full walk.
BurstReduction reduceBurst(const char* buffer, std::size_t length,
    const std::function<std::string(int descriptor)>& pathOf, const std::atomic<bool>& stopFlag,
    std::set<std::string>& changedDirs);
