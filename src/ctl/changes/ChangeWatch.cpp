#include "ctl/changes/ChangeWatch.h"

#include "ctl/Problem.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr std::uint32_t appearing = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_MASK_ADD;
/// For a folder above: what was missing has come, or may be entered now.
constexpr std::uint32_t eventsAbove = appearing | IN_ATTRIB;
/// For the folder with the catalogue, whose log and main file the daemon writes by calls, not through a mapping.
constexpr std::uint32_t eventsBeside = appearing | IN_MODIFY | IN_DELETE | IN_MOVED_FROM;

std::string folderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

/// Whether the kernel said that there is nothing to be watched here, rather than that it cannot watch.
bool isPlaceMissing(int error)
{
    return error == ENOENT || error == ENOTDIR || error == EACCES || error == ELOOP || error == ENAMETOOLONG
        || error == EIO || error == ENODEV;
}

} // namespace

ChangeWatch::ChangeWatch(std::vector<std::string> cataloguePaths)
    : paths(std::move(cataloguePaths))
    , inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
    , mounts(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC))
{
    if (inotify < 0)
        throw Problem("inotify", std::string("Changes cannot be watched: ") + std::strerror(errno),
            "Raise fs.inotify.max_user_instances");
}

ChangeWatch::~ChangeWatch()
{
    close(inotify);
    close(mounts);
}

void ChangeWatch::renew(std::size_t catalogue)
{
    std::set<int> before;
    for (auto at = interests.begin(); at != interests.end();) {
        if (at->second.catalogue == catalogue) {
            before.insert(at->first);
            at = interests.erase(at);
        } else {
            ++at;
        }
    }
    watchFolderOf(catalogue, paths[catalogue]);
    if (access(paths[catalogue].c_str(), R_OK) == 0 && access(folderOf(paths[catalogue]).c_str(), R_OK) != 0
        && deaf.insert(catalogue).second)
        report(Problem(folderOf(paths[catalogue]), "Changes cannot be watched without the right to read this folder",
            "Ask for it, or run without --follow from time to time"));
    // An administrator may keep the catalogue elsewhere and have a link to it here. Its log is beside the file itself.
    std::array<char, PATH_MAX> real = {};
    if (realpath(paths[catalogue].c_str(), real.data()) != nullptr && paths[catalogue] != real.data())
        watchFolderOf(catalogue, real.data());
    for (const int watch : before) {
        if (interests.count(watch) == 0)
            inotify_rm_watch(inotify, watch);
    }
}

/// Watches the folder that the file lies in. While there is none, watches the nearest folder above for the next one.
void ChangeWatch::watchFolderOf(std::size_t catalogue, const std::string& file)
{
    std::string entry = file;
    for (int mostTries = 100;; --mostTries) { // what may be entered need not be what may be watched
        const int watch = add(folderOf(entry), entry == file ? eventsBeside : eventsAbove);
        if (watch < 0 && folderOf(entry) == "/")
            return;
        if (watch < 0) {
            entry = folderOf(entry);
            continue;
        }
        struct stat64 status;
        const bool hasComeMeanwhile = entry != file && stat64(entry.c_str(), &status) == 0 && S_ISDIR(status.st_mode)
            && access(entry.c_str(), R_OK) == 0;
        if (!hasComeMeanwhile || mostTries <= 0) {
            interests.emplace(watch, Interest { catalogue, nameOf(entry) });
            return;
        }
        if (interests.count(watch) == 0)
            inotify_rm_watch(inotify, watch);
        entry = file;
    }
}

/// The watch descriptor; -1 when nothing can be watched there.
int ChangeWatch::add(const std::string& folder, std::uint32_t events) const
{
    const int watch = inotify_add_watch(inotify, folder.c_str(), events);
    if (watch < 0 && !isPlaceMissing(errno))
        throw Problem(folder, std::string("Changes cannot be watched: ") + std::strerror(errno),
            "Raise fs.inotify.max_user_watches");
    return watch;
}

std::set<std::size_t> ChangeWatch::take()
{
    std::set<std::size_t> changed;
    alignas(inotify_event) std::array<char, 65536> buffer;
    ssize_t length = 0;
    while ((length = read(inotify, buffer.data(), buffer.size())) > 0) {
        for (const char* at = buffer.data(); at < buffer.data() + length;) {
            const auto* const event = reinterpret_cast<const inotify_event*>(at);
            at += sizeof(inotify_event) + event->len;
            if ((event->mask & IN_Q_OVERFLOW) != 0)
                return all();
            const std::string_view name = event->len > 0 ? std::string_view(event->name) : std::string_view();
            const auto [first, last] = interests.equal_range(event->wd);
            for (auto interest = first; interest != last; ++interest) {
                const std::string& prefix = interest->second.namePrefix;
                if (name.empty() || name.substr(0, prefix.size()) == prefix)
                    changed.insert(interest->second.catalogue);
            }
            if ((event->mask & IN_IGNORED) != 0)
                interests.erase(event->wd); // the kernel has given it up, and may give the number again
        }
    }
    return changed;
}

std::set<std::size_t> ChangeWatch::all() const
{
    std::set<std::size_t> everything;
    for (std::size_t i = 0; i < paths.size(); ++i)
        everything.insert(i);
    return everything;
}
