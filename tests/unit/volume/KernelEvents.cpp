#include "KernelEvents.h"

#include "watch/VolumeWatcher.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <vector>

namespace {

int descriptor = -1;

/// Everything that is waiting; records are aligned in it as the kernel aligns them.
std::vector<char> readAll()
{
    int waiting = 0;
    EXPECT_EQ(0, ioctl(descriptor, FIONREAD, &waiting));
    std::vector<char> records(static_cast<std::size_t>(waiting));
    if (waiting == 0)
        return records; // to read would wait
    EXPECT_EQ(waiting, read(descriptor, records.data(), records.size()));
    return records;
}

bool isFolder(const inotify_event* event) { return (event->mask & IN_ISDIR) != 0; }

} // namespace

extern "C" int inotify_init() noexcept
{
    descriptor = inotify_init1(0);
    return descriptor;
}

KernelEvents::KernelEvents(VolumeWatcher& router)
    : watcher(router)
{
}

void KernelEvents::discard() { readAll(); }

void KernelEvents::deliver(bool losingNew)
{
    // Handling adds and ends watches, and the end of one is told as well.
    for (std::vector<char> records = readAll(); !records.empty(); records = readAll()) {
        std::vector<inotify_event*> events;
        for (std::size_t position = 0; position < records.size();) {
            auto* event = reinterpret_cast<inotify_event*>(records.data() + position);
            position += sizeof(inotify_event) + event->len;
            ASSERT_EQ(0U, event->mask & IN_Q_OVERFLOW);
            const bool isAboutEntry = (event->mask & IN_IGNORED) == 0 && event->len > 0;
            if (isAboutEntry && !(losingNew && (event->mask & IN_CREATE) != 0))
                events.push_back(event);
        }
        for (std::size_t i = 0; i < events.size(); ++i) {
            if ((events[i]->mask & IN_MOVED_FROM) != 0 && i + 1 < events.size()
                && (events[i + 1]->mask & IN_MOVED_TO) != 0 && events[i]->cookie == events[i + 1]->cookie) {
                routeMove(events[i], events[i + 1]);
                ++i;
            } else {
                route(events[i]);
            }
        }
    }
}

void KernelEvents::routeMove(inotify_event* from, inotify_event* to)
{
    ++count;
    if (isFolder(from))
        watcher.handleMoveFolder(from, to);
    else
        watcher.handleMoveFile(from, to);
}

void KernelEvents::route(inotify_event* event)
{
    ++count;
    if ((event->mask & (IN_CREATE | IN_MOVED_TO)) != 0 && isFolder(event))
        watcher.handleNewFolder(event);
    else if ((event->mask & (IN_CREATE | IN_MOVED_TO)) != 0)
        watcher.handleNewFile(event);
    else if ((event->mask & (IN_DELETE | IN_MOVED_FROM)) != 0 && isFolder(event))
        watcher.handleDeleteFolder(event);
    else if ((event->mask & (IN_DELETE | IN_MOVED_FROM)) != 0)
        watcher.handleDeleteFile(event);
    else if (!isFolder(event)) // closed after writing, or given other attributes
        watcher.handleModifyFile(event);
    // The attributes of a folder: nobody is told of them.
}
