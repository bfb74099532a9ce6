#pragma once

class VolumeWatcher;
struct inotify_event;

/// Reads what the kernel has to tell about the watched folders of the process and has each record routed on its own,
/// where the watcher's thread makes bursts of them. The test program has an inotify_init() of its own, which shows the
/// descriptor.
class KernelEvents {
public:
    explicit KernelEvents(VolumeWatcher& router);

    /// Forgets what has happened so far.
    void discard();
    /// Routes what has happened, in order: the two records of a move together, half a move as the end or the beginning
    /// of the entry. `losingNew`: without the records of new entries, as if there had been no room for them.
    void deliver(bool losingNew = false);
    /// How many records were routed.
    int routed() const { return count; }

private:
    void route(inotify_event* event);
    void routeMove(inotify_event* from, inotify_event* to);

    VolumeWatcher& watcher;
    int count = 0;
};
