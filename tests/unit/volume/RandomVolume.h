#pragma once

#include "CatalogueModel.h"
#include "KernelEvents.h"
#include "VolumeTest.h"

#include <filesystem>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;

/// One course of random changes, which is the same each time.
struct Course {
    unsigned seed;
    const char* start; ///< where walks begin: "" or the one crawl path
};

std::ostream& operator<<(std::ostream& out, const Course& course);

/// What the catalogue writes to standard output, thousands of lines here, goes nowhere for the length of a scope.
class QuietOutput {
public:
    QuietOutput();
    ~QuietOutput();
    QuietOutput(const QuietOutput&) = delete;
    QuietOutput& operator=(const QuietOutput&) = delete;

private:
    static void lead(int descriptor);

    int kept;
};

/// "/Music" for "/Music/a.mp3"
std::string folderOf(const std::string& path);
/// Whether the path is the folder or below it.
bool isInside(const std::string& path, const std::string& folder);

/// A watched volume with what random changes of it are made of: chances, changes on disk, the delivery of the kernel's
/// events, and the words in which the model is told. Paths are volume-relative unless they are called absolute.
class RandomVolume : public VolumeTest, public ::testing::WithParamInterface<Course> {
protected:
    static constexpr int mostFiles = 50;
    static constexpr int mostFolders = 16;

    RandomVolume();

    /// Makes the start folder and walks it: catalogue, watches and model agree from here on.
    void begin();

    // What there is

    std::string full(const std::string& path) const { return root + path; }
    bool isThere(const std::string& path) const;
    /// Whether changes of the entry make events.
    bool isSeen(const std::string& path) const { return model.isWatched(folderOf(path)); }
    /// Whether no folder is below this one.
    bool isLeaf(const std::string& folder) const;
    /// In an order that does not depend on the disk's.
    std::vector<std::string> entries(fs::file_type type) const;
    std::vector<std::string> filePaths() const { return entries(fs::file_type::regular); }
    /// Without the one where walks begin.
    std::vector<std::string> folderPaths() const { return entries(fs::file_type::directory); }

    // Chances

    /// A number less than `count`.
    unsigned upTo(std::size_t count) { return static_cast<unsigned>(chance() % count); }

    /// One of the values; nothing when there is none.
    template <typename Value>
    std::optional<Value> anyOf(const std::vector<Value>& values)
    {
        return values.empty() ? std::nullopt : std::optional<Value>(values[upTo(values.size())]);
    }

    std::optional<std::string> anyFile() { return anyOf(filePaths()); }
    std::optional<std::string> anyFolder() { return anyOf(folderPaths()); }
    std::string anyFolderOrTheStart();
    /// A path in the folder where nothing is yet.
    std::string freePathIn(const std::string& folder);
    std::string freePath() { return freePathIn(anyFolderOrTheStart()); }
    /// A modified time long ago.
    time_t anyTime() { return 1000000 + static_cast<time_t>(upTo(1000000)); }

    // Changes on disk, for which `history` gets a line unless the path is absolute

    /// The next line of the history.
    void say(const std::string& what) { history.push_back(what); }
    void makeFileAt(const std::string& path);
    void removeFileAt(const std::string& path);
    void makeFolderAt(const std::string& path);
    void rename(const std::string& from, const std::string& to);
    /// Removes the folder with all its content, and tells the model.
    void removeTree(const std::string& path);
    /// Makes the file when `flags` say so, and adds so many bytes to it.
    static void write(const std::string& absolute, int flags, long long addedBytes);
    /// Makes the folder with folders and files in it, all before its watch is there.
    void fillFolder(const std::string& absolute);
    static void setTimes(const std::string& absolute, time_t seconds);

    /// Has the kernel's events of all that routed. `losingNew`: those of new entries are lost.
    void deliver(bool losingNew = false);

    // What the model is told, after the delivery

    /// `isClosed`: the file was written and closed, which is an event of its own.
    void tellNewFile(const std::string& path, bool isClosed);
    void tellModified(const std::string& path, int times);
    void tellRemovedFile(const std::string& path);
    void tellNewFolder(const std::string& path);
    void tellMovedFile(const std::string& from, const std::string& to);
    void tellMovedFolder(const std::string& from, const std::string& to);

    CatalogueModel model;
    KernelEvents events;
    std::vector<std::string> history; ///< since the latest full walk

private:
    std::mt19937 chance;
    int freeNames = 0;
};
