#include "watch/VolumeWatcher.h"

#include "core/SignalMask.h"
#include "core/SignalObject.h"
#include "watch/BurstReduction.h"
#include "watch/VolumeWatchListener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/select.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

VolumeWatcher* VolumeWatcher::instance = nullptr;

namespace {

constexpr uint32_t watchMask = IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE;
static_assert(watchMask == 972, "no IN_MODIFY: a file counts once it is closed; a folder's end shows in its parent");

void logNoTarget(const std::string& volume)
{
    syslog(LOG_LOCAL5 | LOG_ERR, "No listener/directory found for %s\n", volume.c_str());
}

void logFailure(const std::string& volume)
{
    syslog(LOG_LOCAL5 | LOG_ERR, "Got an exception during the walking of volumeManager %s\n", volume.c_str());
}

/// The name that the record carries. One about the watched folder itself has none, and ends where a name would begin.
const char* entryName(const inotify_event& event) { return event.len > 0 ? event.name : ""; }

constexpr int longestBurstSeconds = 299;

int elapsedMillis(const timeval& from, const timeval& to)
{
    return static_cast<int>((to.tv_sec - from.tv_sec) * 1000 + (to.tv_usec - from.tv_usec) / 1000);
}

/// The path as a shell takes it for one word: ordinary paths as they are, others in single quotes.
std::string shellWord(const std::string& path)
{
    const auto isOrdinary = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
            || std::strchr("/._-+,:@%=", c) != nullptr;
    };
    if (!path.empty() && path.front() == '/' && std::all_of(path.begin(), path.end(), isOrdinary))
        return path;
    std::string quoted = "'";
    for (const char c : path)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
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
    inotifyFd = inotify_init();
    if (inotifyFd < 0)
        throw "*** error inot_handle";
    stopEvent = eventfd(0, EFD_CLOEXEC); // without one, see interruptRead()
    return inotifyFd;
}

void VolumeWatcher::addVolumeWatchListener(std::string& volumeName, VolumeWatchListener* listener)
{
    const std::lock_guard<std::mutex> held(registryMutex);
    listeners[volumeName] = listener;
}

void VolumeWatcher::removeVolumeWatchListener(std::string& volumeName)
{
    const std::lock_guard<std::mutex> held(registryMutex);
    listeners.erase(volumeName);
}

int VolumeWatcher::addDirectoryToWatch(std::string& volumeName, std::string& path)
{
    const std::lock_guard<std::mutex> held(registryMutex);
    const int descriptor = inotify_add_watch(inotifyFd, path.c_str(), watchMask);
    if (descriptor < 1)
        return descriptor;
    const auto known = watchPaths.find(descriptor);
    if (known == watchPaths.end() || known->second != path) { // most folders of a walk keep theirs
        forget(descriptor);
        label(descriptor, path);
    }
    watchVolumes[descriptor] = volumeName;
    return descriptor;
}

int VolumeWatcher::removeDirectoryToWatch(std::string& path)
{
    const std::lock_guard<std::mutex> held(registryMutex);
    const int found = watchesByPath.first(path);
    const int descriptor = found != PathIndex::none ? found : 0;
    if (found != PathIndex::none)
        inotify_rm_watch(inotifyFd, descriptor);
    forget(descriptor);
    return descriptor;
}

int VolumeWatcher::numWatches()
{
    const std::lock_guard<std::mutex> held(registryMutex);
    return static_cast<int>(watchPaths.size());
}

/// The folder of the watch from now on, which must not have one yet. The caller holds the registry's mutex, here and
/// below.
const std::string& VolumeWatcher::label(int descriptor, const std::string& path)
{
    const std::string& kept = watchPaths[descriptor] = path;
    watchesByPath.add(descriptor);
    return kept;
}

void VolumeWatcher::forget(int descriptor)
{
    const auto watch = watchPaths.find(descriptor);
    if (watch != watchPaths.end()) {
        watchesByPath.remove(descriptor);
        watchPaths.erase(watch);
    }
    watchVolumes.erase(descriptor);
}

/// The folder of a watch. An unknown descriptor (an overflow, a late event of a removed watch) gets an empty entry,
/// which numWatches() counts; its empty path shadows the rest of the burst, see handleChangedDirs().
const std::string& VolumeWatcher::entryOf(int descriptor)
{
    const auto watch = watchPaths.find(descriptor);
    return watch != watchPaths.end() ? watch->second : label(descriptor, "");
}

std::string VolumeWatcher::pathOf(int descriptor)
{
    const std::lock_guard<std::mutex> held(registryMutex);
    return entryOf(descriptor);
}

/// As pathOf(), an unknown descriptor or volume gets an empty entry.
VolumeWatcher::Target VolumeWatcher::targetOf(int descriptor)
{
    const std::lock_guard<std::mutex> held(registryMutex);
    Target target;
    target.volume = watchVolumes[descriptor];
    target.listener = listeners[target.volume];
    target.dir = entryOf(descriptor);
    return target;
}

// The thread

void VolumeWatcher::start()
{
    if (stopFlag)
        return;
    threadStarted = pthread_create(&thread, nullptr, start_thread, this) == 0;
    stopFlag = false;
}

void VolumeWatcher::stop()
{
    stopFlag = true;
    if (threadStarted) { // a second stop, or one before the thread exists, has nothing to wake and join
        threadStarted = false;
        try {
            tickleFirstFolder();
        } catch (const std::bad_alloc&) {
            // No memory for the command: interruptRead() wakes the thread all the same.
        }
        interruptRead();
        pthread_join(thread, nullptr);
    }

    const std::lock_guard<std::mutex> held(registryMutex);
    for (const auto& watch : watchVolumes)
        inotify_rm_watch(inotifyFd, watch.first);
    for (int* descriptor : { &inotifyFd, &stopEvent }) {
        if (*descriptor >= 0)
            close(*descriptor);
        *descriptor = -1;
    }
    watchesByPath.clear();
    watchPaths.clear();
    watchVolumes.clear();
    listeners.clear();
}

bool VolumeWatcher::isRunning() { return !stopFlag; }

void* VolumeWatcher::start_thread(void* self)
{
    static_cast<VolumeWatcher*>(self)->run();
    return nullptr;
}

void VolumeWatcher::tickleFirstFolder()
{
    std::string path;
    {
        const std::lock_guard<std::mutex> held(registryMutex);
        const auto first = std::find_if(
            watchPaths.begin(), watchPaths.end(), [](const auto& entry) { return !entry.second.empty(); });
        if (first == watchPaths.end())
            return;
        path = first->second;
    }
    tickle(path);
}

void VolumeWatcher::tickle(std::string& path)
{
    const std::string command = "touch " + shellWord(path) + "/" + ".tickle";
    if (std::system(command.c_str()) != 0) {
        // A read-only volume, a folder that is gone: interruptRead() wakes the thread all the same.
    }
}

/// Ends the thread's wait for events whatever the volumes are like. The eventfd does so always; the end of a watch of
/// the watcher's own is an event, which also cuts short the wait for more events of a burst, and is all there is where
/// no eventfd could be made.
void VolumeWatcher::interruptRead()
{
    if (stopEvent >= 0)
        eventfd_write(stopEvent, 1);
    const std::lock_guard<std::mutex> held(registryMutex);
    inotify_rm_watch(inotifyFd, inotify_add_watch(inotifyFd, "/", IN_DELETE_SELF));
}

bool VolumeWatcher::isReadyForRead()
{
    if (inotifyFd < 0 || inotifyFd >= FD_SETSIZE)
        return false;
    fd_set descriptors;
    FD_ZERO(&descriptors);
    FD_SET(inotifyFd, &descriptors);
    timeval timeout = { 5, 0 };
    return select(1024, &descriptors, nullptr, nullptr, &timeout) == 1;
}

/// Waits for events, then reads them. 0 when the stop came instead: it may find no way to make an event.
ssize_t VolumeWatcher::readEvents()
{
    pollfd awaited[] = { { inotifyFd, POLLIN, 0 }, { stopEvent, POLLIN, 0 } };
    if (poll(awaited, 2, -1) > 0 && awaited[1].revents != 0)
        return 0;
    return read(inotifyFd, eventBuffer, sizeof eventBuffer);
}

void VolumeWatcher::run()
{
    blockAllSignals();
    while (!stopFlag) {
        std::set<std::string> changedDirs;
        int eventCount = 0;
        int readMillis = 0;
        int position = 0;
        // Without memory for the names of the changed folders, the rest of the burst is lost, the watcher is not.
        try {
            collectBurst(changedDirs, eventCount, readMillis, position);
        } catch (const std::bad_alloc&) {
            logFailure("");
        }

        syslog(LOG_LOCAL5 | LOG_INFO, "Processed %d events\n", eventCount);
        if (eventCount > 0)
            syslog(LOG_LOCAL5 | LOG_INFO, "Rate of inotify event %ld\n", static_cast<long>(readMillis / eventCount));
        const time_t handlingStart = std::time(nullptr);
        try {
            handleChangedDirs(changedDirs);
        } catch (const std::bad_alloc&) {
            logFailure("");
        }
        syslog(LOG_LOCAL5 | LOG_INFO, "Handled %d events in %d seconds ", eventCount,
            static_cast<int>(std::time(nullptr) - handlingStart));
        syslog(LOG_LOCAL5 | LOG_INFO, "======\n");
        if (position > 0)
            SignalObject::getInstance()->notify();
    }
    pthread_exit(nullptr); // unwinds by force: a catch (...) above it would abort the daemon
}

/// Reads until nothing came for 5 seconds, or for 300 seconds in all. `position` tells of the last read alone.
void VolumeWatcher::collectBurst(std::set<std::string>& changedDirs, int& eventCount, int& readMillis, int& position)
{
    const time_t burstStart = std::time(nullptr);
    bool timing = false; // not the first read, which mostly waits for something to happen
    do {
        std::memset(eventBuffer, 0, sizeof eventBuffer);
        position = 0;
        timeval before;
        timeval after;
        gettimeofday(&before, nullptr);
        const ssize_t n = readEvents();
        gettimeofday(&after, nullptr);
        if (timing) // NOLINTNEXTLINE(bugprone-incorrect-roundings): whole milliseconds, the half changes nothing
            readMillis = static_cast<int>(readMillis + static_cast<double>(elapsedMillis(before, after)) + 0.5);
        timing = true;
        if (n > 0) {
            const BurstReduction reduction = reduceBurst(
                eventBuffer, static_cast<std::size_t>(n), [this](int descriptor) { return pathOf(descriptor); },
                stopFlag, changedDirs);
            eventCount += reduction.events;
            position = reduction.position;
        }
    } while (!stopFlag && isReadyForRead() && std::time(nullptr) - burstStart <= longestBurstSeconds);
}

void VolumeWatcher::handleChangedDirs(const std::set<std::string>& changedDirs)
{
    if (changedDirs.empty())
        return;
    // The smallest path, never replaced on purpose: what contains it anywhere is taken for a part of what the first
    // walk covers. An empty path (an event of an unknown watch) is contained in every other and shadows the burst.
    const std::string prefix = *changedDirs.begin();
    for (auto dir = changedDirs.begin(); dir != changedDirs.end() && !stopFlag; ++dir) {
        if (dir != changedDirs.begin() && dir->find(prefix) != std::string::npos)
            syslog(LOG_LOCAL5 | LOG_INFO, "Skipping because %s is in %s\n", dir->c_str(), prefix.c_str());
        else
            handleChangedDir(*dir);
    }
}

/// Has the folder looked at under the first watch that has its path; nothing when it has been re-labelled meanwhile.
void VolumeWatcher::handleChangedDir(const std::string& path)
{
    inotify_event event = {};
    std::string volume; // the walk may give up the watch
    {
        const std::lock_guard<std::mutex> held(registryMutex);
        event.wd = watchesByPath.first(path);
        if (event.wd == PathIndex::none)
            return;
        volume = watchVolumes[event.wd];
    }
    // One folder that cannot be handled must not end the watch of all the others.
    try {
        handleChangeFolder(&event);
    } catch (const std::exception&) {
        logFailure(volume);
    } catch (const char*) {
        logFailure(volume);
    }
}

// Routing

void VolumeWatcher::handleChangeFolder(inotify_event* event)
{
    Target target = targetOf(event->wd);
    if (target.isComplete())
        target.listener->handleChangeFolder(target.dir);
    else
        logNoTarget(target.volume);
}

void VolumeWatcher::handleNewFolder(inotify_event* event) { deliver(&VolumeWatchListener::handleNewFolder, event); }

void VolumeWatcher::handleNewFile(inotify_event* event) { deliver(&VolumeWatchListener::handleNewFile, event); }

void VolumeWatcher::handleModifyFile(inotify_event* event) { deliver(&VolumeWatchListener::handleModifyFile, event); }

void VolumeWatcher::handleDeleteFile(inotify_event* event) { deliver(&VolumeWatchListener::handleDeleteFile, event); }

void VolumeWatcher::handleDeleteFolder(inotify_event* event)
{
    deliver(&VolumeWatchListener::handleDeleteFolder, event);
    std::string removed = pathOf(event->wd) + "/" + entryName(*event);
    removeDirectoryToWatch(removed);
}

void VolumeWatcher::handleMoveFile(inotify_event* from, inotify_event* to)
{
    deliverMove(&VolumeWatchListener::handleMoveFile, from, to);
}

void VolumeWatcher::handleMoveFolder(inotify_event* from, inotify_event* to)
{
    deliverMove(&VolumeWatchListener::handleMoveFolder, from, to);
    std::string oldPath = pathOf(from->wd) + "/" + entryName(*from);
    Target target = targetOf(to->wd);
    std::string newPath = target.dir + "/" + entryName(*to);
    removeDirectoryToWatch(oldPath); // finds nothing when the listener's walk has told the watch its new path
    if (to->len > 0)                 // else the watch of the folder itself would be told another path
        addDirectoryToWatch(target.volume, newPath);
}

void VolumeWatcher::deliver(EntryOperation operation, const inotify_event* event)
{
    Target target = targetOf(event->wd);
    if (target.isComplete())
        (target.listener->*operation)(target.dir, entryName(*event));
    else
        logNoTarget(target.volume);
}

void VolumeWatcher::deliverMove(MoveOperation operation, const inotify_event* from, const inotify_event* to)
{
    Target source = targetOf(from->wd);
    Target destination = targetOf(to->wd);
    if (source.volume.empty() || source.volume != destination.volume)
        syslog(LOG_LOCAL5 | LOG_ERR, "We are crossing from %s to %s. Ignore for now\n", source.volume.c_str(),
            destination.volume.c_str());
    else if (source.isComplete() && !destination.dir.empty())
        (source.listener->*operation)(source.dir, entryName(*from), destination.dir, entryName(*to));
    else
        logNoTarget(source.volume);
}
