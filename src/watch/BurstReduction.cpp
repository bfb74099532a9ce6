#include "watch/BurstReduction.h"

#include <sys/inotify.h>

#include <cstring>

namespace {

/// The fixed part of the record at `position`; copied, since nothing aligns a record in somebody else's buffer.
inotify_event recordAt(const char* buffer, std::size_t position)
{
    inotify_event record;
    std::memcpy(&record, buffer + position, sizeof record);
    return record;
}

} // namespace

BurstReduction reduceBurst(const char* buffer, std::size_t length,
    const std::function<std::string(int descriptor)>& pathOf, const std::atomic<bool>& stopFlag,
    std::set<std::string>& changedDirs)
{
    BurstReduction reduction;
    std::size_t position = 0;
    if (length < sizeof(inotify_event))
        return reduction; // the kernel hands out whole records
    int current = recordAt(buffer, 0).wd;
    changedDirs.insert(pathOf(current));
    while (!stopFlag && position < length && length - position >= sizeof(inotify_event)) {
        const inotify_event record = recordAt(buffer, position);
        if (record.wd != current) {
            // The previous descriptor's folder, on purpose: inserting the new one would walk folders twice in the
            // usual run of records that alternate between a folder and its parent.
            changedDirs.insert(pathOf(current));
            current = record.wd;
        }
        position += sizeof(inotify_event) + record.len;
        ++reduction.events;
    }
    reduction.position = static_cast<int>(position);
    return reduction;
}
