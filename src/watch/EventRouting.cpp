#include "watch/EventRouting.h"

#include "watch/VolumeWatchListener.h"
#include "watch/WatchRegistry.h"

#include <sys/inotify.h>
#include <syslog.h>

namespace {

void logNoTarget(const std::string& volume)
{
    syslog(LOG_LOCAL5 | LOG_ERR, "No listener/directory found for %s\n", volume.c_str());
}

/// The name in the record. A record about the watched folder itself has no name, and the bytes after it belong to the
/// next record.
const char* entryName(const inotify_event& event) { return event.len > 0 ? event.name : ""; }

} // namespace

EventRouting::EventRouting(WatchRegistry& watches)
    : registry(watches)
{
}

void EventRouting::deliverChange(int descriptor)
{
    WatchRegistry::Target target = registry.targetOf(descriptor);
    if (target.isComplete())
        target.listener->handleChangeFolder(target.dir);
    else
        logNoTarget(target.volume);
}

void EventRouting::deliver(EntryOperation operation, const inotify_event& event)
{
    WatchRegistry::Target target = registry.targetOf(event.wd);
    if (target.isComplete())
        (target.listener->*operation)(target.dir, entryName(event));
    else
        logNoTarget(target.volume);
}

void EventRouting::deliverMove(MoveOperation operation, const inotify_event& from, const inotify_event& to)
{
    WatchRegistry::Target source = registry.targetOf(from.wd);
    WatchRegistry::Target destination = registry.targetOf(to.wd);
    if (source.volume.empty() || source.volume != destination.volume)
        syslog(LOG_LOCAL5 | LOG_ERR, "We are crossing from %s to %s. Ignore for now\n", source.volume.c_str(),
            destination.volume.c_str());
    else if (source.isComplete() && !destination.dir.empty())
        (source.listener->*operation)(source.dir, entryName(from), destination.dir, entryName(to));
    else
        logNoTarget(source.volume);
}

void EventRouting::deliverDeletedFolder(const inotify_event& event)
{
    deliver(&VolumeWatchListener::handleDeleteFolder, event);
    registry.remove(registry.pathOf(event.wd) + "/" + entryName(event));
}

void EventRouting::deliverMovedFolder(const inotify_event& from, const inotify_event& to)
{
    deliverMove(&VolumeWatchListener::handleMoveFolder, from, to);
    const std::string oldPath = registry.pathOf(from.wd) + "/" + entryName(from);
    const WatchRegistry::Target target = registry.targetOf(to.wd);
    registry.remove(oldPath); // finds nothing when the listener's walk has already given the watch its new path
    // Without a name this would give the destination folder's own watch a path that ends in "/".
    if (to.len > 0)
        registry.add(target.volume, target.dir + "/" + entryName(to));
}
