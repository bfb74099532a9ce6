#include "RandomVolume.h"

#include "watch/VolumeWatcher.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <list>

namespace {

constexpr long long largeSize = 5000000000; // more than 32 bits hold

} // namespace

std::ostream& operator<<(std::ostream& out, const Course& course)
{
    return out << "seed " << course.seed << ", walks begin at \"" << course.start << '"';
}

QuietOutput::QuietOutput()
    : kept(dup(STDOUT_FILENO))
{
    lead(open("/dev/null", O_WRONLY | O_CLOEXEC));
}

QuietOutput::~QuietOutput() { lead(kept); }

void QuietOutput::lead(int descriptor)
{
    std::fflush(stdout);
    dup2(descriptor, STDOUT_FILENO);
    close(descriptor);
}

std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

bool isInside(const std::string& path, const std::string& folder) { return (path + "/").rfind(folder + "/", 0) == 0; }

RandomVolume::RandomVolume()
    : model(root, GetParam().start)
    , events(*VolumeWatcher::getInstance())
    , chance(GetParam().seed)
{
}

void RandomVolume::begin()
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

// What there is

bool RandomVolume::isThere(const std::string& path) const { return fs::exists(fs::symlink_status(full(path))); }

bool RandomVolume::isLeaf(const std::string& folder) const
{
    const std::vector<std::string> all = folderPaths();
    return std::none_of(all.begin(), all.end(), [&](const auto& other) { return other.rfind(folder + "/", 0) == 0; });
}

std::vector<std::string> RandomVolume::entries(fs::file_type type) const
{
    std::vector<std::string> found;
    const std::string start = root + GetParam().start;
    for (auto entry = fs::recursive_directory_iterator(start); entry != fs::recursive_directory_iterator(); ++entry) {
        if (entry->path() == root + "/.quarrow")
            entry.disable_recursion_pending();
        else if (entry->symlink_status().type() == type)
            found.push_back(entry->path().string().substr(root.length()));
    }
    std::sort(found.begin(), found.end());
    return found;
}

// Chances

std::string RandomVolume::anyFolderOrTheStart()
{
    std::vector<std::string> all = folderPaths();
    all.emplace_back(GetParam().start);
    return *anyOf(all);
}

std::string RandomVolume::freePathIn(const std::string& folder)
{
    static const std::vector<std::string> names = { "a.mp3", "b.avi", "c.jpg", "d.txt", "e", "f.", ".g.mp3",
        "h.mp3.bak", "Album", "Öl & Æther", "100%s", "it's", ".hidden", "x y", "a", "ab" };
    for (int attempt = 0; attempt < 20; ++attempt) {
        std::string path = folder + "/" + *anyOf(names);
        if (!isThere(path))
            return path;
    }
    return folder + "/" + std::to_string(++freeNames) + ".mp3";
}

// Changes on disk

void RandomVolume::makeFileAt(const std::string& path)
{
    say("make file " + path);
    write(full(path), O_CREAT | O_EXCL, upTo(8) == 0 ? largeSize : upTo(100));
}

void RandomVolume::removeFileAt(const std::string& path)
{
    say("remove " + path);
    EXPECT_EQ(0, unlink(full(path).c_str()));
}

void RandomVolume::makeFolderAt(const std::string& path)
{
    say("make folder " + path);
    EXPECT_EQ(0, mkdir(full(path).c_str(), 0755));
}

void RandomVolume::rename(const std::string& from, const std::string& to)
{
    say("move " + from + " to " + to);
    ASSERT_EQ(0, ::rename(full(from).c_str(), full(to).c_str()));
}

void RandomVolume::removeTree(const std::string& path)
{
    say("remove " + path);
    // The kernel tells the end of each folder to the one above it, from the bottom up.
    std::vector<std::string> gone;
    for (const std::string& folder : folderPaths()) {
        if (isInside(folder, path))
            gone.push_back(folder);
    }
    std::vector<std::string> seen;
    std::copy_if(
        gone.rbegin(), gone.rend(), std::back_inserter(seen), [this](const auto& folder) { return isSeen(folder); });
    for (const std::string& folder : gone)
        model.lostFolder(folder);
    fs::remove_all(full(path));
    for (const std::string& folder : seen)
        model.deletedFolder(folder);
    model.touchedFolder(folderOf(path));
}

void RandomVolume::write(const std::string& absolute, int flags, long long addedBytes)
{
    const int file = open(absolute.c_str(), O_WRONLY | O_CLOEXEC | flags, 0644);
    ASSERT_GE(file, 0) << absolute;
    const off_t end = lseek(file, 0, SEEK_END);
    ASSERT_EQ(0, ftruncate(file, end + addedBytes)); // sparse, so that a large file costs nothing
    ASSERT_EQ(0, close(file));
}

void RandomVolume::fillFolder(const std::string& absolute)
{
    fs::create_directories(absolute + "/CD 1/.art");
    for (const char* file : { "/a.mp3", "/CD 1/a.mp3", "/CD 1/b.txt", "/CD 1/.art/c.jpg" })
        write(absolute + file, O_CREAT | O_EXCL, upTo(100));
}

void RandomVolume::setTimes(const std::string& absolute, time_t seconds)
{
    const timespec times[2] = { { seconds, 0 }, { seconds, 0 } };
    EXPECT_EQ(0, utimensat(AT_FDCWD, absolute.c_str(), times, AT_SYMLINK_NOFOLLOW)) << absolute;
}

void RandomVolume::deliver(bool losingNew)
{
    const QuietOutput quiet;
    events.deliver(losingNew);
}

// What the model is told

void RandomVolume::tellNewFile(const std::string& path, bool isClosed)
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

void RandomVolume::tellModified(const std::string& path, int times)
{
    for (int i = 0; i < times; ++i)
        model.modifiedFile(path);
}

void RandomVolume::tellRemovedFile(const std::string& path)
{
    if (isSeen(path))
        model.deletedFile(path);
    model.touchedFolder(folderOf(path));
}

void RandomVolume::tellNewFolder(const std::string& path)
{
    if (isSeen(path))
        model.newFolder(path);
    else
        model.cameUnseen(path);
    model.touchedFolder(folderOf(path));
}

void RandomVolume::tellMovedFile(const std::string& from, const std::string& to)
{
    const bool left = isSeen(from);
    const bool arrived = isSeen(to);
    if (left && arrived)
        model.movedFile(from, to);
    else if (left)
        model.deletedFile(from);
    else if (arrived)
        model.newFile(to);
    if (!arrived)
        model.cameUnseen(to);
    model.touchedFolder(folderOf(from));
    model.touchedFolder(folderOf(to));
}

void RandomVolume::tellMovedFolder(const std::string& from, const std::string& to)
{
    const bool left = isSeen(from);
    const bool arrived = isSeen(to);
    if (left && arrived)
        model.movedFolder(from, to);
    else if (left)
        model.deletedFolder(from);
    else if (arrived)
        model.newFolder(to);
    if (!arrived)
        model.cameUnseen(to);
    model.touchedFolder(folderOf(from));
    model.touchedFolder(folderOf(to));
}
