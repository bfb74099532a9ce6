#pragma once

#include <string>

struct inotify_event;
class VolumeWatchListener;
class WatchRegistry;

/// Delivers one kernel event to the listener of the volume whose folder the event is about. When the listener or the
/// folder is not known, the event is logged instead. The registry is not locked while a listener runs, and the listener
/// gets copies of the registry's strings. What a listener throws passes through, and no watch is changed then.
class EventRouting {
public:
    using EntryOperation = void (VolumeWatchListener::*)(std::string& dir, const char* name);
    using MoveOperation = void (VolumeWatchListener::*)(
        std::string& fromDir, const char* fromName, std::string& toDir, const char* toName);

    /// `watches` must outlive the object.
    explicit EventRouting(WatchRegistry& watches);

    /// Calls handleChangeFolder() for the folder of this watch.
    void deliverChange(int descriptor);
    /// Calls `operation` for the folder of the event's watch and the event's name.
    void deliver(EntryOperation operation, const inotify_event& event);
    /// Calls `operation` for an entry that was moved. A move from one volume to another is logged and not delivered.
    void deliverMove(MoveOperation operation, const inotify_event& from, const inotify_event& to);
    /// Calls handleDeleteFolder(). Then ends the watch of the folder, also when there was no listener to call.
    void deliverDeletedFolder(const inotify_event& event);
    /// Calls handleMoveFolder(). Then gives the watch of the folder its new path, also when there was no listener to
    /// call.
    void deliverMovedFolder(const inotify_event& from, const inotify_event& to);

private:
    WatchRegistry& registry;
};
