#include "watch/VolumeWatcher.h"

#include "core/SignalMask.h"
#include "watch/BurstHandling.h"
#include "watch/BurstReduction.h"
#include "watch/Tickle.h"
#include "watch/VolumeWatchListener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/select.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <new>

VolumeWatcher* VolumeWatcher::instance = nullptr;

namespace {

/// A burst lasts at most 300 seconds: the whole seconds that have passed are compared by <=.
constexpr int longestBurstSeconds = 299;

/// `millis` and the whole milliseconds between the two moments. The half shows only below 0, where a clock that was set
/// back can lead: there it rounds up, and the logged rate depends on it.
int withElapsed(int millis, const timeval& from, const timeval& to)
{
    const auto elapsed = static_cast<int>((to.tv_sec - from.tv_sec) * 1000 + (to.tv_usec - from.tv_usec) / 1000);
    // NOLINTNEXTLINE(bugprone-incorrect-roundings): not meant to round, see above
    return static_cast<int>(millis + static_cast<double>(elapsed) + 0.5);
}

} // namespace

VolumeWatcher* VolumeWatcher::getInstance()
{
    if (instance == nullptr) {
        instance = new VolumeWatcher;
        instance->initialize();
    }
    return instance;
}

VolumeWatcher::VolumeWatcher() = default;

// Registry

int VolumeWatcher::initialize()
{
    const int inotifyFd = registry.open();
    if (inotifyFd < 0)
        throw "*** error inot_handle";
    stopEvent = eventfd(0, EFD_CLOEXEC); // without one, see wakeThread()
    return inotifyFd;
}

void VolumeWatcher::addVolumeWatchListener(std::string& volumeName, VolumeWatchListener* listener)
{
    registry.addListener(volumeName, listener);
}

void VolumeWatcher::removeVolumeWatchListener(std::string& volumeName) { registry.removeListener(volumeName); }

int VolumeWatcher::addDirectoryToWatch(std::string& volumeName, std::string& path)
{
    return registry.add(volumeName, path);
}

int VolumeWatcher::removeDirectoryToWatch(std::string& path) { return registry.remove(path); }

int VolumeWatcher::numWatches() { return registry.count(); }

// The thread

void VolumeWatcher::start()
{
    if (stopRequest.isMade())
        return;
    threadStarted = pthread_create(&thread, nullptr, start_thread, this) == 0;
}

void VolumeWatcher::stop()
{
    stopRequest.make();
    if (threadStarted) { // a second stop, or one before the thread exists, has nothing to wake and join
        threadStarted = false;
        tickleFirstFolder();
        wakeThread();
        pthread_join(thread, nullptr);
    }
    registry.close();
    if (stopEvent >= 0)
        close(stopEvent);
    stopEvent = -1;
}

bool VolumeWatcher::isRunning() { return !stopRequest.isMade(); }

void* VolumeWatcher::start_thread(void* self)
{
    static_cast<VolumeWatcher*>(self)->run();
    return nullptr;
}

void VolumeWatcher::tickle(std::string& path) { touchTickle(path); }

/// Leaves the mark of a stop, which readers know, in the first watched folder. It does not have to wake the thread.
void VolumeWatcher::tickleFirstFolder()
{
    try {
        std::string path = registry.firstPath();
        if (!path.empty())
            tickle(path);
    } catch (const std::bad_alloc&) {
        // Without memory for the command there is no mark, but the stop goes on.
    }
}

/// Ends both waits of the thread, readEvents() and isReadyForRead(), whatever the volumes are like. An event of the
/// watcher's own does that only where no eventfd was to be had, since the kernel may give no watch for it.
void VolumeWatcher::wakeThread()
{
    if (stopEvent >= 0)
        eventfd_write(stopEvent, 1);
    else
        registry.makeEvent();
}

bool VolumeWatcher::isReadyForRead()
{
    const int inotifyFd = registry.inotifyDescriptor();
    if (inotifyFd < 0 || inotifyFd >= FD_SETSIZE)
        return false;
    fd_set awaited;
    FD_ZERO(&awaited);
    FD_SET(inotifyFd, &awaited);
    if (stopEvent >= 0 && stopEvent < FD_SETSIZE) // beyond that, the stop waits for the end of the 5 seconds
        FD_SET(stopEvent, &awaited);
    timeval timeout = { 5, 0 };
    // 1024 is FD_SETSIZE, the largest set that select() can take. It stands as the number of the original interface.
    return select(1024, &awaited, nullptr, nullptr, &timeout) == 1 && !stopRequest.isMade();
}

/// Waits for events, then reads them. Returns 0 when the stop came instead, as read() does when there is nothing.
ssize_t VolumeWatcher::readEvents()
{
    pollfd awaited[] = { { registry.inotifyDescriptor(), POLLIN, 0 }, { stopEvent, POLLIN, 0 } };
    if (poll(awaited, 2, -1) > 0 && awaited[1].revents != 0)
        return 0;
    return read(registry.inotifyDescriptor(), eventBuffer, sizeof eventBuffer);
}

void VolumeWatcher::run()
{
    blockAllSignals();
    while (!stopRequest.isMade()) {
        Burst burst;
        // Without memory for the names of the changed folders, the rest of the burst is lost, the watcher is not.
        try {
            collectBurst(burst);
        } catch (const std::bad_alloc&) {
            syslog(LOG_LOCAL5 | LOG_ERR, "Got an exception during the walking of volumeManager %s\n", "");
        }
        handleBurst(burst, registry, routing, stopRequest);
    }
    pthread_exit(nullptr); // unwinds by force: a catch (...) above it would abort the daemon
}

/// Reads until nothing came for 5 seconds, or for 300 seconds in all.
void VolumeWatcher::collectBurst(Burst& burst)
{
    const time_t burstStart = std::time(nullptr);
    bool timing = false; // not the first read, which mostly waits for something to happen
    do {
        std::memset(eventBuffer, 0, sizeof eventBuffer);
        burst.position = 0;
        timeval before;
        timeval after;
        gettimeofday(&before, nullptr);
        const ssize_t n = readEvents();
        gettimeofday(&after, nullptr);
        if (timing)
            burst.readMillis = withElapsed(burst.readMillis, before, after);
        timing = true;
        if (n > 0)
            reduceBurst(
                eventBuffer, static_cast<std::size_t>(n),
                [this](int descriptor) { return registry.pathOf(descriptor); }, stopRequest, burst);
    } while (!stopRequest.isMade() && waitForMore(burst) && std::time(nullptr) - burstStart <= longestBurstSeconds);
}

/// The quiet time. A stop that ends it counts as a last read without records, so that this burst no longer wakes the
/// purge thread.
bool VolumeWatcher::waitForMore(Burst& burst)
{
    const bool isReady = isReadyForRead();
    if (stopRequest.isMade())
        burst.position = 0;
    return isReady;
}

// Routing

void VolumeWatcher::handleChangeFolder(inotify_event* event) { routing.deliverChange(event->wd); }

void VolumeWatcher::handleNewFolder(inotify_event* event)
{
    routing.deliver(&VolumeWatchListener::handleNewFolder, *event);
}

void VolumeWatcher::handleNewFile(inotify_event* event)
{
    routing.deliver(&VolumeWatchListener::handleNewFile, *event);
}

void VolumeWatcher::handleModifyFile(inotify_event* event)
{
    routing.deliver(&VolumeWatchListener::handleModifyFile, *event);
}

void VolumeWatcher::handleDeleteFile(inotify_event* event)
{
    routing.deliver(&VolumeWatchListener::handleDeleteFile, *event);
}

void VolumeWatcher::handleDeleteFolder(inotify_event* event) { routing.deliverDeletedFolder(*event); }

void VolumeWatcher::handleMoveFile(inotify_event* from, inotify_event* to)
{
    routing.deliverMove(&VolumeWatchListener::handleMoveFile, *from, *to);
}

void VolumeWatcher::handleMoveFolder(inotify_event* from, inotify_event* to) { routing.deliverMovedFolder(*from, *to); }
