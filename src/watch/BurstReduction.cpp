#include "watch/BurstReduction.h"

#include <sys/inotify.h>

#include <cstring>

namespace {

/// The fixed part of the record at `position`. It is copied because nothing says that the caller's buffer is aligned.
inotify_event recordAt(const char* buffer, std::size_t position)
{
    inotify_event record;
    std::memcpy(&record, buffer + position, sizeof record);
    return record;
}

} // namespace

void reduceBurst(const char* buffer, std::size_t length, const std::function<std::string(int descriptor)>& pathOf,
    const StopRequest& stop, Burst& burst)
{
    burst.position = 0;
    if (length < sizeof(inotify_event))
        return; // no record: the kernel hands out whole ones only
    int events = 0;
    std::size_t position = 0;
    int current = recordAt(buffer, 0).wd;
    burst.changedDirs.insert(pathOf(current));
    while (!stop.isMade() && position < length && length - position >= sizeof(inotify_event)) {
        const inotify_event record = recordAt(buffer, position);
        if (record.wd != current) {
            // The folder that the records leave, on purpose. Adding the folder of record.wd instead, or the folder of
            // the last run as well, would change which folders a burst handles.
            burst.changedDirs.insert(pathOf(current));
            current = record.wd;
        }
        position += sizeof(inotify_event) + record.len;
        ++events;
    }
    burst.eventCount += events;
    burst.position = static_cast<int>(position);
}
