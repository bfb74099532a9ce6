#pragma once

#include "watch/PathIndex.h"
#include "watch/WatchEntry.h"

#include <map>
#include <mutex>
#include <string>

class VolumeWatchListener;

/// The inotify instance, the folders that it watches and the listeners of the volumes. Every operation but
/// inotifyDescriptor() may be called on any thread, with or without a volume's lock. No operation calls a listener.
///
/// An event can have a descriptor that is not known: the kernel's queue overran, or the watch was removed meanwhile.
/// pathOf() and targetOf() make an entry with an empty path and volume for such a descriptor. count() counts it, and
/// find() finds it by the empty path.
class WatchRegistry {
public:
    /// The receiver of an event.
    struct Target {
        std::string volume;
        std::string dir;
        VolumeWatchListener* listener = nullptr; ///< borrowed; nullptr when the volume has none

        bool isComplete() const { return listener != nullptr && !dir.empty(); }
    };
    /// A watch and the volume it was added for.
    struct Watch {
        int descriptor = none;
        std::string volume;
    };
    static constexpr int none = PathIndex::none; ///< below every descriptor

    /// Opens the inotify instance. Returns its descriptor, or a negative number when the system has none to give.
    int open();
    /// The descriptor of the inotify instance, negative when it is not open. Reads without the mutex, so it must not be
    /// called while open() or close() runs.
    int inotifyDescriptor() const { return inotifyFd; }
    /// Ends every watch, closes the inotify instance and forgets all entries and listeners.
    void close();

    /// Replaces an earlier listener of the volume.
    void addListener(const std::string& volume, VolumeWatchListener* listener);
    void removeListener(const std::string& volume);

    /// Watches the folder. A watch that the folder has already gets this path and volume. Returns the watch descriptor.
    /// When the kernel gives none, returns the kernel's result (below 1), and nothing has changed.
    int add(const std::string& volume, const std::string& path);
    /// Ends the watch of the path, the one with the lowest descriptor when there are several. Returns its descriptor,
    /// or 0 when the path is not watched. In that case the entry of descriptor 0 is removed, if an event has made one.
    int remove(const std::string& path);
    /// Makes an event without a name, by a watch on "/" that ends at once. Does nothing when the kernel gives no watch.
    void makeEvent();

    int count(); ///< the number of entries
    std::string pathOf(int descriptor);
    Target targetOf(int descriptor);
    /// The watch with the lowest descriptor among those of the path; its descriptor is `none` when the path has no
    /// watch.
    Watch find(const std::string& path);
    /// The path of the entry with the lowest descriptor among those with a path; empty when no entry has one.
    std::string firstPath();

private:
    const WatchEntry& entryOf(int descriptor);
    void forget(int descriptor);

    /// Guards all fields below. A change of the entries holds it across the kernel call that belongs to the change, so
    /// that an event never meets a descriptor without its entry. No listener is called with it held: a listener walks,
    /// and a walk adds watches. A thread that also needs a volume's lock takes that lock first.
    std::mutex mutex;
    std::map<int, WatchEntry> entries;                     ///< by watch descriptor
    PathIndex byPath { entries };                          ///< finds an entry by its path
    std::map<std::string, VolumeWatchListener*> listeners; ///< by volume name; borrowed
    int inotifyFd = -1; ///< written with the mutex held; inotifyDescriptor() reads it without
};
