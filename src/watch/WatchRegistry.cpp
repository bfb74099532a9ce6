#include "watch/WatchRegistry.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace {

constexpr uint32_t watchMask = IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE;
static_assert(watchMask == 972, "no IN_MODIFY: a file counts once it is closed; a folder's end shows in its parent");

} // namespace

int WatchRegistry::open()
{
    const std::lock_guard<std::mutex> held(mutex);
    inotifyFd = inotify_init();
    return inotifyFd;
}

void WatchRegistry::close()
{
    const std::lock_guard<std::mutex> held(mutex);
    // Some entries stand for no watch. The kernel refuses to remove those, and the result is ignored.
    for (const auto& entry : entries)
        inotify_rm_watch(inotifyFd, entry.first);
    if (inotifyFd >= 0)
        ::close(inotifyFd);
    inotifyFd = -1;
    byPath.clear();
    entries.clear();
    listeners.clear();
}

void WatchRegistry::addListener(const std::string& volume, VolumeWatchListener* listener)
{
    const std::lock_guard<std::mutex> held(mutex);
    listeners[volume] = listener;
}

void WatchRegistry::removeListener(const std::string& volume)
{
    const std::lock_guard<std::mutex> held(mutex);
    listeners.erase(volume);
}

int WatchRegistry::add(const std::string& volume, const std::string& path)
{
    const std::lock_guard<std::mutex> held(mutex);
    const int descriptor = inotify_add_watch(inotifyFd, path.c_str(), watchMask);
    if (descriptor < 1)
        return descriptor;
    const auto known = entries.find(descriptor);
    if (known != entries.end() && known->second.path == path) { // the case of most folders of a walk
        known->second.volume = volume;
        return descriptor;
    }
    WatchEntry entry { path, volume };
    forget(descriptor);
    entries[descriptor] = std::move(entry);
    byPath.add(descriptor);
    return descriptor;
}

int WatchRegistry::remove(const std::string& path)
{
    const std::lock_guard<std::mutex> held(mutex);
    const int found = byPath.first(path);
    // 0 stands for "not watched", since no watch has that descriptor. An entry that an event has made for 0 goes too.
    const int descriptor = found != none ? found : 0;
    if (found != none)
        inotify_rm_watch(inotifyFd, descriptor);
    forget(descriptor);
    return descriptor;
}

void WatchRegistry::makeEvent()
{
    const std::lock_guard<std::mutex> held(mutex);
    inotify_rm_watch(inotifyFd, inotify_add_watch(inotifyFd, "/", IN_DELETE_SELF));
}

int WatchRegistry::count()
{
    const std::lock_guard<std::mutex> held(mutex);
    return static_cast<int>(entries.size());
}

std::string WatchRegistry::pathOf(int descriptor)
{
    const std::lock_guard<std::mutex> held(mutex);
    return entryOf(descriptor).path;
}

WatchRegistry::Target WatchRegistry::targetOf(int descriptor)
{
    const std::lock_guard<std::mutex> held(mutex);
    const WatchEntry& entry = entryOf(descriptor);
    const auto listener = listeners.find(entry.volume);
    return { entry.volume, entry.path, listener != listeners.end() ? listener->second : nullptr };
}

WatchRegistry::Watch WatchRegistry::find(const std::string& path)
{
    const std::lock_guard<std::mutex> held(mutex);
    const int descriptor = byPath.first(path);
    if (descriptor == none)
        return {};
    return { descriptor, entries.at(descriptor).volume };
}

std::string WatchRegistry::firstPath()
{
    const std::lock_guard<std::mutex> held(mutex);
    const auto first
        = std::find_if(entries.begin(), entries.end(), [](const auto& each) { return !each.second.path.empty(); });
    return first != entries.end() ? first->second.path : "";
}

/// The entry of the descriptor. One that is not known gets an empty entry, on purpose: handleBurst() finds it by the
/// empty path, which is how an overrun queue comes to be logged. The caller holds the mutex.
const WatchEntry& WatchRegistry::entryOf(int descriptor)
{
    return entries[descriptor]; // byPath has no empty paths, so nothing is added there
}

/// Removes the entry of the descriptor, if there is one. The caller holds the mutex.
void WatchRegistry::forget(int descriptor)
{
    const auto entry = entries.find(descriptor);
    if (entry == entries.end())
        return;
    byPath.remove(descriptor);
    entries.erase(entry);
}
