#pragma once

struct Burst;
class EventRouting;
class StopRequest;
class WatchRegistry;

/// Has the changed folders of a burst looked at by the listeners of their volumes, in the order of their paths, logs
/// how long it took, and wakes the purge thread when the last read had records. A folder whose path contains the first
/// one's is skipped. Ends before the next folder once the stop is made. Watcher thread, without any lock.
void handleBurst(const Burst& burst, WatchRegistry& registry, EventRouting& routing, const StopRequest& stop);
