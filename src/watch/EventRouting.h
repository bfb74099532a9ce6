#pragma once

#include <string>

struct inotify_event;
class VolumeWatchListener;
class WatchRegistry;

/// Delivers one kernel event to the listener of the volume whose folder it is about. An event whose listener or folder
/// is not known is logged instead. The registry is not locked while a listener runs; what the listener gets are copies.
class EventRouting {
public:
    using EntryOperation = void (VolumeWatchListener::*)(std::string& dir, const char* name);
    using MoveOperation = void (VolumeWatchListener::*)(
        std::string& fromDir, const char* fromName, std::string& toDir, const char* toName);

    /// The registry stays its owner's and must outlive this.
    explicit EventRouting(WatchRegistry& watches);

    /// Something changed in the folder of this watch.
    void deliverChange(int descriptor);
    /// Something happened to an entry of a folder.
    void deliver(EntryOperation operation, const inotify_event& event);
    /// An entry was moved. A move from one volume to another is logged and not delivered.
    void deliverMove(MoveOperation operation, const inotify_event& from, const inotify_event& to);
    /// Also ends the watch of the folder, whether or not anybody was told.
    void deliverDeletedFolder(const inotify_event& event);
    /// Also moves the watch of the folder to its new path, whether or not anybody was told.
    void deliverMovedFolder(const inotify_event& from, const inotify_event& to);

private:
    WatchRegistry& registry;
};
