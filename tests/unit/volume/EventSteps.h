#pragma once

#include "CatalogueModel.h"
#include "KernelEvents.h"
#include "VolumeTest.h"

#include "watch/VolumeWatcher.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <list>
#include <map>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;

constexpr int mostFiles = 50;
constexpr int mostFolders = 16;
constexpr long long largeSize = 5000000000; // more than 32 bits hold

inline std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

struct Course {
    unsigned seed;
    const char* start; ///< where walks begin: "" or the one crawl path
};

inline std::ostream& operator<<(std::ostream& out, const Course& course)
{
    return out << "seed " << course.seed << ", walks begin at \"" << course.start << '"';
}

/// What the catalogue writes to standard output, thousands of lines here, goes nowhere for the length of a scope.
class QuietOutput {
public:
    QuietOutput()
        : kept(dup(STDOUT_FILENO))
    {
        lead(open("/dev/null", O_WRONLY | O_CLOEXEC));
    }
    ~QuietOutput() { lead(kept); }
    QuietOutput(const QuietOutput&) = delete;
    QuietOutput& operator=(const QuietOutput&) = delete;

private:
    static void lead(int descriptor)
    {
        std::fflush(stdout);
        dup2(descriptor, STDOUT_FILENO);
        close(descriptor);
    }

    int kept;
};

/// A volume whose folder tree changes at random: each step changes it, has the kernel's events of that routed one by
/// one, and tells the model.
class EventSteps : public VolumeTest, public ::testing::WithParamInterface<Course> {
protected:
    using Step = bool (EventSteps::*)();

    EventSteps()
        : model(root, GetParam().start)
        , events(*VolumeWatcher::getInstance())
        , chance(GetParam().seed)
    {
    }

    void begin()
    {
        const std::string start = GetParam().start;
        volume.makeFolder(start);
        configure(start.empty() ? std::list<std::string>() : std::list<std::string> { start }, { "/.quarrow" });
        initializeQuietly();
        VolumeWatcher::getInstance()->addVolumeWatchListener(name, manager.get());
        walk(start);
        model.walk(start);
        events.discard();
        clearLog();
    }

    // What there is, and chances

    unsigned upTo(std::size_t count) { return static_cast<unsigned>(chance() % count); }

    template <typename Value>
    std::optional<Value> anyOf(const std::vector<Value>& values)
    {
        return values.empty() ? std::nullopt : std::optional<Value>(values[upTo(values.size())]);
    }

    std::string full(const std::string& path) const { return root + path; }
    bool isThere(const std::string& path) const { return fs::exists(fs::symlink_status(full(path))); }
    bool isSeen(const std::string& path) const { return model.isWatched(folderOf(path)); }

    /// Volume-relative, in an order that does not depend on the disk's.
    std::vector<std::string> entries(fs::file_type type) const
    {
        std::vector<std::string> found;
        const std::string start = root + GetParam().start;
        for (auto entry = fs::recursive_directory_iterator(start); entry != fs::recursive_directory_iterator();
             ++entry) {
            if (entry->path() == root + "/.quarrow")
                entry.disable_recursion_pending();
            else if (entry->symlink_status().type() == type)
                found.push_back(entry->path().string().substr(root.length()));
        }
        std::sort(found.begin(), found.end());
        return found;
    }
    std::vector<std::string> filePaths() const { return entries(fs::file_type::regular); }
    /// Without the one where walks begin.
    std::vector<std::string> folderPaths() const { return entries(fs::file_type::directory); }
    bool isLeaf(const std::string& folder) const
    {
        const std::vector<std::string> all = folderPaths();
        return std::none_of(
            all.begin(), all.end(), [&](const auto& other) { return other.rfind(folder + "/", 0) == 0; });
    }

    std::string anyFolder()
    {
        std::vector<std::string> all = folderPaths();
        all.emplace_back(GetParam().start);
        return *anyOf(all);
    }
    std::string freePathIn(const std::string& folder)
    {
        static const std::vector<std::string> names = { "a.mp3", "b.avi", "c.jpg", "d.txt", "e", "f.", ".g.mp3",
            "h.mp3.bak", "Album", "Öl & Æther", "100%s", "it's", ".hidden", "x y", "a", "ab" };
        for (int attempt = 0; attempt < 20; ++attempt) {
            const std::string path = folder + "/" + *anyOf(names);
            if (!isThere(path))
                return path;
        }
        return folder + "/" + std::to_string(++freeNames) + ".mp3";
    }
    std::string freePath() { return freePathIn(anyFolder()); }

    // Changes on disk

    void say(const std::string& what) { history.push_back(what); }

    void write(const std::string& absolute, int flags, long long size)
    {
        const int file = open(absolute.c_str(), O_WRONLY | O_CLOEXEC | flags, 0644);
        ASSERT_GE(file, 0) << absolute;
        const off_t at = lseek(file, 0, SEEK_END);
        ASSERT_EQ(0, ftruncate(file, at + size)); // sparse, so that a large file costs nothing
        ASSERT_EQ(0, close(file));
    }
    void makeFileAt(const std::string& path)
    {
        say("make file " + path);
        write(full(path), O_CREAT | O_EXCL, upTo(8) == 0 ? largeSize : upTo(100));
    }
    void rename(const std::string& from, const std::string& to)
    {
        say("move " + from + " to " + to);
        ASSERT_EQ(0, ::rename(full(from).c_str(), full(to).c_str()));
    }
    void removeTree(const std::string& path)
    {
        say("remove " + path);
        // The kernel tells the end of each folder to the one above it, from the bottom up.
        std::vector<std::string> gone;
        for (const std::string& folder : folderPaths()) {
            if ((folder + "/").rfind(path + "/", 0) == 0)
                gone.push_back(folder);
        }
        std::vector<std::string> seen;
        std::copy_if(gone.rbegin(), gone.rend(), std::back_inserter(seen),
            [this](const auto& folder) { return isSeen(folder); });
        for (const std::string& folder : gone)
            model.lostFolder(folder);
        fs::remove_all(full(path));
        for (const std::string& folder : seen)
            model.deletedFolder(folder);
        model.touchedFolder(folderOf(path));
    }

    void deliver(bool losingNew = false)
    {
        const QuietOutput quiet;
        events.deliver(losingNew);
    }

    // What the model is told

    void tellNewFile(const std::string& path, bool isClosed)
    {
        if (isSeen(path)) {
            model.newFile(path);
            if (isClosed)
                model.modifiedFile(path);
        } else {
            model.cameUnseen(path);
        }
        model.touchedFolder(folderOf(path));
    }
    void tellNewFolder(const std::string& path)
    {
        if (isSeen(path))
            model.newFolder(path);
        else
            model.cameUnseen(path);
        model.touchedFolder(folderOf(path));
    }
    void tellMove(const std::string& from, const std::string& to, bool isFolder)
    {
        const bool left = isSeen(from);
        const bool arrived = isSeen(to);
        if (left && arrived)
            isFolder ? model.movedFolder(from, to) : model.movedFile(from, to);
        else if (left)
            isFolder ? model.deletedFolder(from) : model.deletedFile(from);
        else if (arrived)
            isFolder ? model.newFolder(to) : model.newFile(to);
        if (!arrived)
            model.cameUnseen(to);
        model.touchedFolder(folderOf(from));
        model.touchedFolder(folderOf(to));
    }

    // Steps; false when there is nothing to do it with

    bool makeFile()
    {
        if (filePaths().size() >= mostFiles)
            return removeFile();
        const std::string path = freePath();
        const bool isClosed = upTo(3) != 0;
        if (isClosed) {
            makeFileAt(path);
        } else { // in one go, which is no end of writing
            say("make empty file " + path);
            EXPECT_EQ(0, mknod(full(path).c_str(), S_IFREG | 0644, 0));
        }
        deliver();
        tellNewFile(path, isClosed);
        return true;
    }

    bool writeFile()
    {
        const auto path = anyOf(filePaths());
        if (!path)
            return false;
        struct stat before = {};
        EXPECT_EQ(0, stat(full(*path).c_str(), &before));
        const unsigned kind = upTo(9);
        say("write " + *path + " in way " + std::to_string(kind));
        if (kind == 0) { // the modified time alone: the kernel tells it as a write that has not ended
            setModifiedTime(full(*path), static_cast<time_t>(1000000 + upTo(1000000)));
            deliver();
            model.changedUntold(*path);
            return true;
        }
        if (kind > 2)
            write(full(*path), 0, kind > 4 ? 1 + upTo(9) : 0);
        if (kind <= 2)
            setTimes(full(*path), static_cast<time_t>(1000000 + upTo(1000000)));
        if (kind > 6) // the size alone
            setTimes(full(*path), before.st_mtime);
        deliver();
        if (isSeen(*path))
            tellModified(*path, kind > 6 ? 2 : 1);
        return true;
    }
    static void setTimes(const std::string& absolute, time_t seconds)
    {
        const timespec times[2] = { { seconds, 0 }, { seconds, 0 } };
        EXPECT_EQ(0, utimensat(AT_FDCWD, absolute.c_str(), times, AT_SYMLINK_NOFOLLOW)) << absolute;
    }
    void tellModified(const std::string& path, int times)
    {
        for (int i = 0; i < times; ++i)
            model.modifiedFile(path);
    }

    bool removeFile()
    {
        const auto path = anyOf(filePaths());
        if (!path)
            return false;
        say("remove " + *path);
        EXPECT_EQ(0, unlink(full(*path).c_str()));
        deliver();
        tellRemoved(*path);
        return true;
    }
    void tellRemoved(const std::string& path)
    {
        if (isSeen(path))
            model.deletedFile(path);
        model.touchedFolder(folderOf(path));
    }

    bool replaceFile()
    {
        const auto path = anyOf(filePaths());
        if (!path)
            return false;
        say("remove " + *path);
        EXPECT_EQ(0, unlink(full(*path).c_str()));
        makeFileAt(*path);
        deliver();
        tellRemoved(*path);
        tellNewFile(*path, true);
        return true;
    }

    bool makeAndRemoveFile()
    {
        const std::string path = freePath();
        makeFileAt(path);
        say("remove " + path);
        EXPECT_EQ(0, unlink(full(path).c_str()));
        deliver();
        tellRemoved(path);
        return true;
    }

    bool moveFile()
    {
        const auto from = anyOf(filePaths());
        return from && moveFileTo(*from, freePathIn(upTo(2) == 0 ? folderOf(*from) : anyFolder()));
    }
    bool moveFileOntoAnother()
    {
        const auto from = anyOf(filePaths());
        const auto to = anyOf(filePaths());
        return from && from != to && moveFileTo(*from, *to);
    }
    bool moveFileTo(const std::string& from, const std::string& to)
    {
        rename(from, to);
        deliver();
        tellMove(from, to, false);
        return true;
    }

    bool moveFileOnAtOnce()
    {
        const auto from = anyOf(filePaths());
        const std::string between = freePath();
        const std::string to = freePath();
        if (!from || between == to || !isSeen(*from) || !isSeen(between) || !isSeen(to))
            return false;
        rename(*from, between);
        rename(between, to);
        deliver();
        tellMove(*from, between, false);
        tellMove(between, to, false);
        return true;
    }

    /// As programs save: the new file beside the old one, then in its place.
    bool saveFile()
    {
        const auto path = anyOf(filePaths());
        if (!path)
            return false;
        const std::string temporary = folderOf(*path) + "/saving";
        makeFileAt(temporary);
        rename(temporary, *path);
        deliver();
        if (isSeen(*path))
            model.movedFile(temporary, *path);
        model.touchedFolder(folderOf(*path));
        return true;
    }

    bool makeFolder()
    {
        if (folderPaths().size() >= mostFolders)
            return removeFolder();
        const std::string path = freePath();
        say("make folder " + path);
        EXPECT_EQ(0, mkdir(full(path).c_str(), 0755));
        deliver();
        tellNewFolder(path);
        return true;
    }

    /// What is made in a folder before its watch is there.
    void fillFolder(const std::string& absolute)
    {
        fs::create_directories(absolute + "/CD 1/.art");
        for (const char* file : { "/a.mp3", "/CD 1/a.mp3", "/CD 1/b.txt", "/CD 1/.art/c.jpg" })
            write(absolute + file, O_CREAT | O_EXCL, upTo(100));
    }
    bool makeTree()
    {
        if (folderPaths().size() >= mostFolders)
            return removeFolder();
        const std::string path = freePath();
        say("make tree " + path);
        fillFolder(full(path));
        deliver();
        tellNewFolder(path);
        return true;
    }

    bool removeFolder()
    {
        const auto path = anyOf(folderPaths());
        if (!path)
            return false;
        removeTree(*path);
        deliver();
        return true;
    }

    bool moveFolder()
    {
        const auto from = anyOf(folderPaths());
        return from && moveFolderTo(*from, freePath());
    }
    bool moveFolderOntoAnEmptyOne()
    {
        const auto from = anyOf(folderPaths());
        const std::string to = freePath();
        if (!from || isInside(to, *from) || !isMovable(*from, to))
            return false;
        say("make folder " + to);
        EXPECT_EQ(0, mkdir(full(to).c_str(), 0755));
        deliver();
        tellNewFolder(to);
        model.lostFolder(to);
        return moveFolderTo(*from, to);
    }
    static bool isInside(const std::string& path, const std::string& folder)
    {
        return (path + "/").rfind(folder + "/", 0) == 0;
    }
    /// A folder that leaves the watched ones gives up one watch, the first that goes by its path. Those below it, or
    /// one more of its own (after it took the place of another folder), keep the old path until a walk finds the folder
    /// again, and what happens there is taken for something at the old path. So only folders without such watches
    /// leave.
    bool mayLeave(const std::string& folder) const { return isLeaf(folder) && model.watchesAt(folder) < 2; }
    bool isMovable(const std::string& from, const std::string& to) const
    {
        return isSeen(to) || !isSeen(from) || mayLeave(from);
    }
    bool moveFolderTo(const std::string& from, const std::string& to)
    {
        if (isInside(to, from) || !isMovable(from, to))
            return false;
        rename(from, to);
        deliver();
        tellMove(from, to, true);
        return true;
    }

    bool moveFolderOnAtOnce()
    {
        const auto from = anyOf(folderPaths());
        const std::string between = freePath();
        const std::string to = freePath();
        if (!from || between == to || isInside(between, *from) || isInside(to, *from) || !isSeen(*from)
            || !isSeen(between) || !isSeen(to))
            return false;
        rename(*from, between);
        rename(between, to);
        deliver();
        tellMove(*from, between, true);
        tellMove(between, to, true);
        return true;
    }

    bool loseNewFile()
    {
        const std::string path = freePath();
        makeFileAt(path);
        deliver(true);
        model.cameUnseen(path);
        if (isSeen(path))
            model.modifiedFile(path); // the end of the writing comes through
        model.touchedFolder(folderOf(path));
        return true;
    }
    bool loseNewFolder()
    {
        const std::string path = freePath();
        say("make tree unseen " + path);
        fillFolder(full(path));
        deliver(true);
        model.cameUnseen(path);
        model.touchedFolder(folderOf(path));
        return true;
    }

    bool touchFolder()
    {
        const auto path = anyOf(folderPaths());
        if (!path)
            return false;
        say("set time of " + *path);
        setTimes(full(*path), static_cast<time_t>(1000000 + upTo(1000000)));
        deliver();
        model.touchedFolder(*path);
        return true;
    }

    bool moveOut()
    {
        const bool isFolder = upTo(2) == 0;
        const auto path = anyOf(isFolder ? folderPaths() : filePaths());
        if (!path || (isFolder && !mayLeave(*path)))
            return false;
        say("move out " + *path);
        const bool seen = isSeen(*path);
        EXPECT_EQ(0, ::rename(full(*path).c_str(), outside.path(std::to_string(++movedOut)).c_str()));
        deliver();
        if (seen)
            isFolder ? model.deletedFolder(*path) : model.deletedFile(*path);
        model.touchedFolder(folderOf(*path));
        return true;
    }
    bool moveIn()
    {
        const bool isFolder = upTo(2) == 0;
        if (isFolder && folderPaths().size() >= mostFolders)
            return false;
        const std::string path = freePath();
        const std::string there = outside.path(std::to_string(++movedOut));
        say("move in " + path);
        if (isFolder)
            fillFolder(there);
        else
            write(there, O_CREAT | O_EXCL, upTo(100));
        EXPECT_EQ(0, ::rename(there.c_str(), full(path).c_str()));
        deliver();
        if (isFolder)
            tellNewFolder(path);
        else
            tellNewFile(path, false);
        return true;
    }

    struct Weighted {
        const char* name;
        int weight;
        Step step;
    };
    static const std::vector<Weighted>& allSteps()
    {
        static const std::vector<Weighted> all = {
            { "make file", 16, &EventSteps::makeFile },
            { "write file", 10, &EventSteps::writeFile },
            { "remove file", 6, &EventSteps::removeFile },
            { "replace file", 3, &EventSteps::replaceFile },
            { "make and remove file", 1, &EventSteps::makeAndRemoveFile },
            { "move file", 12, &EventSteps::moveFile },
            { "move file onto another", 2, &EventSteps::moveFileOntoAnother },
            { "move file on at once", 2, &EventSteps::moveFileOnAtOnce },
            { "save file", 3, &EventSteps::saveFile },
            { "make folder", 8, &EventSteps::makeFolder },
            { "make tree", 3, &EventSteps::makeTree },
            { "remove folder", 3, &EventSteps::removeFolder },
            { "move folder", 10, &EventSteps::moveFolder },
            { "move folder onto an empty one", 2, &EventSteps::moveFolderOntoAnEmptyOne },
            { "move folder on at once", 2, &EventSteps::moveFolderOnAtOnce },
            { "lose new file", 2, &EventSteps::loseNewFile },
            { "lose new folder", 1, &EventSteps::loseNewFolder },
            { "touch folder", 2, &EventSteps::touchFolder },
            { "move out", 2, &EventSteps::moveOut },
            { "move in", 2, &EventSteps::moveIn },
        };
        return all;
    }
    void takeStep()
    {
        int total = 0;
        for (const Weighted& one : allSteps())
            total += one.weight;
        for (;;) {
            int drawn = static_cast<int>(upTo(static_cast<std::size_t>(total)));
            const auto one = std::find_if(allSteps().begin(), allSteps().end(), [&](const Weighted& candidate) {
                drawn -= candidate.weight;
                return drawn < 0;
            });
            if ((this->*one->step)()) {
                ++taken[one->name];
                return;
            }
        }
    }

    TemporaryFolder outside; ///< nobody watches it
    CatalogueModel model;
    KernelEvents events;
    std::mt19937 chance;
    int freeNames = 0;
    int movedOut = 0;
    std::vector<std::string> history; ///< since the latest full walk
    std::map<std::string, int> taken;
};
