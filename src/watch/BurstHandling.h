#pragma once

struct Burst;
class EventRouting;
class StopRequest;
class WatchRegistry;

/// Calls handleChangeFolder() of the volume's listener for each changed folder of the burst, in the order of the paths,
/// and logs how long that took. A folder whose path contains the path of the first one is skipped. What a listener
/// throws is logged, and the next folder follows. Once a stop is requested no further folder is handled. Wakes the
/// purge thread when the last read of the burst had records. Called on the watcher thread without any lock.
void handleBurst(const Burst& burst, WatchRegistry& registry, EventRouting& routing, const StopRequest& stop);
