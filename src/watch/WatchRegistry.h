#pragma once

#include "watch/PathIndex.h"
#include "watch/WatchEntry.h"

#include <map>
#include <mutex>
#include <string>

class VolumeWatchListener;

/// The inotify instance, the folders that are watched by it and the listeners of the volumes. Any thread may call
/// anything but inotifyDescriptor().
///
/// An event can carry a descriptor that is not known: the kernel's queue ran over, or the watch was removed meanwhile.
/// Who asks for such a descriptor, by pathOf() or targetOf(), makes an entry with an empty path and volume, which
/// count() counts from then on.
class WatchRegistry {
public:
    /// Whom an event goes to.
    struct Target {
        std::string volume;
        std::string dir;
        VolumeWatchListener* listener = nullptr; ///< borrowed; null when the volume has none

        bool isComplete() const { return listener != nullptr && !dir.empty(); }
    };
    /// A watch and the volume it was added for.
    struct Watch {
        int descriptor = none;
        std::string volume;
    };
    static constexpr int none = PathIndex::none; ///< below every descriptor

    /// Opens the inotify instance. Returns its descriptor, or a negative number.
    int open();
    /// The descriptor of the inotify instance, -1 when it is not open. Not for use while open() or close() runs.
    int inotifyDescriptor() const { return inotifyFd; }
    /// Ends every watch, closes the inotify instance and forgets all entries and listeners.
    void close();

    /// Replaces an earlier listener of the volume.
    void addListener(const std::string& volume, VolumeWatchListener* listener);
    void removeListener(const std::string& volume);

    /// Watches the folder, or gives a watch that it has already this path and volume. Returns the watch descriptor, or
    /// what the kernel returned instead: then nothing has changed.
    int add(const std::string& volume, const std::string& path);
    /// Ends the watch of the path, the one with the lowest descriptor when there are several. Returns its descriptor, 0
    /// when the path is not watched: then the entry of descriptor 0, if an event has made one, is forgotten.
    int remove(const std::string& path);
    /// Makes an event without a name, by a watch on "/" that ends at once. Nothing happens when the kernel gives none.
    void makeEvent();

    int count();
    std::string pathOf(int descriptor);
    Target targetOf(int descriptor);
    /// The watch with the lowest descriptor of the path; `none` as its descriptor when there is none.
    Watch find(const std::string& path);
    /// The path of the lowest descriptor that has one, empty when none has.
    std::string firstPath();

private:
    const WatchEntry& entryOf(int descriptor);
    void forget(int descriptor);

    /// Guards everything below. It is held across the kernel call that belongs to a change of the entries, so that an
    /// event never meets a descriptor that is not entered yet. Nothing is called with it but the kernel and `byPath`:
    /// a listener walks, and a walk adds watches. Who also needs a volume's lock takes that one first.
    std::mutex mutex;
    std::map<int, WatchEntry> entries;                     ///< by watch descriptor
    PathIndex byPath { entries };                          ///< its paths
    std::map<std::string, VolumeWatchListener*> listeners; ///< by volume name; borrowed
    int inotifyFd = -1; ///< written with the mutex; inotifyDescriptor() reads it without, see there
};
