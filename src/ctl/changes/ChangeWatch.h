#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

/// Tells which catalogues may have changed, by what the kernel reports: writes to a catalogue or its log, files that
/// come and go beside it, folders that appear, file systems that are mounted and unmounted. Nothing is looked at
/// while nothing happens. One thread.
class ChangeWatch {
public:
    /// Watches the catalogues at these absolute paths, known by their position in the list. Throws a Problem when the
    /// kernel has no watches left for this user.
    explicit ChangeWatch(std::vector<std::string> cataloguePaths);
    ~ChangeWatch();
    ChangeWatch(const ChangeWatch&) = delete;
    ChangeWatch& operator=(const ChangeWatch&) = delete;

    /// Watches what is at the catalogue's path by now. To be called before the catalogue is read. Throws a Problem.
    void renew(std::size_t catalogue);

    /// Whichever has something to be read: poll() for POLLIN and POLLPRI.
    int changesDescriptor() const { return inotify; }
    int mountsDescriptor() const { return mounts; }

    /// Takes what the kernel has reported and returns the catalogues that it is about.
    std::set<std::size_t> take();
    /// The file systems have changed, so every catalogue may be another one.
    std::set<std::size_t> all() const;

private:
    /// Why a folder is watched: for a catalogue, and in it for entries whose names begin so.
    struct Interest {
        std::size_t catalogue;
        std::string namePrefix;
    };
    void watchFolderOf(std::size_t catalogue, const std::string& file);
    int add(const std::string& folder, std::uint32_t events) const;

    const std::vector<std::string> paths;
    int inotify = -1;
    int mounts = -1;
    std::multimap<int, Interest> interests; ///< by watch descriptor
    std::set<std::size_t> deaf;             ///< of which it was said that they cannot be watched
};
