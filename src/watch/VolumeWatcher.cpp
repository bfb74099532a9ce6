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

/// A burst goes on while this many whole seconds, or fewer, have passed (<=). So it ends once 300 have.
constexpr int longestBurstSeconds = 299;

/// The sum of `millis` and the whole milliseconds between the two moments. The 0.5 belongs to the sum on purpose: when
/// a clock that was set back makes the sum negative, the cast to int then yields one more, and the logged rate shows
/// it.
int withElapsed(int millis, const timeval& from, const timeval& to)
{
    const auto elapsed = static_cast<int>((to.tv_sec - from.tv_sec) * 1000 + (to.tv_usec - from.tv_usec) / 1000);
    // NOLINTNEXTLINE(bugprone-incorrect-roundings): not meant as rounding, see above
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
    stopEvent = eventfd(0, EFD_CLOEXEC); // when this fails, wakeThread() has another way
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

/// Leaves the mark of a stop in the first watched folder: readers of the volume know it. Waking the thread is up to
/// wakeThread().
void VolumeWatcher::tickleFirstFolder()
{
    try {
        std::string path = registry.firstPath();
        if (!path.empty())
            tickle(path);
    } catch (const std::bad_alloc&) {
        // Without memory for the command the mark is left out, and the stop goes on.
    }
}

/// Ends both waits of the thread, in readEvents() and in isReadyForRead(), whatever the state of the volumes. An
/// inotify event is used only where no eventfd could be made, because the kernel may refuse the watch that such an
/// event needs.
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
    if (stopEvent >= 0 && stopEvent < FD_SETSIZE) // a higher one cannot be watched: the stop waits up to 5 seconds
        FD_SET(stopEvent, &awaited);
    timeval timeout = { 5, 0 };
    // 1024 is FD_SETSIZE: select() then looks at every descriptor that the set can hold. The result is 2 only when the
    // stop event is readable, and then the answer is false in any case.
    return select(1024, &awaited, nullptr, nullptr, &timeout) == 1 && !stopRequest.isMade();
}

/// Waits for events and reads them into the buffer. Returns the number of bytes, 0 when a stop ended the wait, or a
/// negative number when reading failed.
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
        // When memory for the names of changed folders runs out, the rest of the burst is lost, but the watcher goes
        // on.
        try {
            collectBurst(burst);
        } catch (const std::bad_alloc&) {
            syslog(LOG_LOCAL5 | LOG_ERR, "Got an exception during the walking of volumeManager %s\n", "");
        }
        handleBurst(burst, registry, routing, stopRequest);
    }
    pthread_exit(nullptr); // unwinds by force, so a catch (...) above it would abort the daemon
}

/// Reads until no event has come for 5 seconds, the burst is 300 seconds old, or a stop is requested.
void VolumeWatcher::collectBurst(Burst& burst)
{
    // Taken before the first read on purpose, although that read may wait for hours: a burst that breaks a long quiet
    // then ends after its first read, and its change is handled without collecting for minutes.
    const time_t burstStart = std::time(nullptr);
    bool timing = false; // false for the first read, which mostly waits for something to happen
    do {
        std::memset(eventBuffer, 0, sizeof eventBuffer); // so that nothing of an earlier read stands behind the new one
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

/// Waits for further events; false when the burst is over. A stop sets the position to 0, as a read without records
/// does: handleBurst() then does not wake the purge thread, which is about to end as well.
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
