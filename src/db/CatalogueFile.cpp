#include "db/CatalogueFile.h"

#include "core/DurableFile.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

constexpr mode_t readableByAll = 0644;
constexpr mode_t permissionBits = 0777; // a program that is set-uid must not become root's
constexpr mode_t writableByOthers = 0022;
/// On a regular file this bit does nothing. It marks what is root's already and not yet looked into: also a log, which
/// could be put beside another catalogue.
constexpr mode_t notLookedInto = S_ISVTX;
/// Whoever has the shared index open holds a lock on this byte of it: SQLite's "deadman switch".
constexpr off_t indexInUseByte = 128;

/// A descriptor for the length of a scope.
class OpenFile {
public:
    OpenFile(const std::string& path, int flags, mode_t mode = 0)
        : number(open(path.c_str(), flags | O_CLOEXEC, mode))
    {
    }
    ~OpenFile()
    {
        if (number >= 0)
            close(number);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    const int number; ///< -1 when it could not be opened
};

std::string folderOf(const std::string& path)
{
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

/// Where SQLite looks for the side files: beside the file that a link leads to.
std::string withoutLinks(const std::string& path)
{
    char* real = realpath(path.c_str(), nullptr);
    std::string result = real != nullptr ? real : path;
    std::free(real);
    return result;
}

bool isTrusted(uid_t owner) { return owner == 0 || owner == geteuid(); }

bool isFit(const struct stat64& status)
{
    if (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode))
        return false;
    return !S_ISREG(status.st_mode) || (status.st_nlink <= 1 && isTrusted(status.st_uid));
}

/// Whether the name under which the file was opened is there. One that was taken away is not counted in the file's
/// links any more, so that another user's file would pass for one with a single name. For ever: a name that comes back
/// is another.
bool hasItsName(int descriptor)
{
    constexpr char gone[] = " (deleted)";
    constexpr std::size_t length = sizeof gone - 1;
    char self[32];
    char target[PATH_MAX + sizeof gone];
    std::snprintf(self, sizeof self, "/proc/self/fd/%d", descriptor);
    const ssize_t n = readlink(self, target, sizeof target);
    return n < static_cast<ssize_t>(length) || std::memcmp(target + n - length, gone, length) != 0;
}

/// One of the files of a catalogue. Only looks, with O_PATH: to open and close a file would take away the locks that
/// the process has on it.
class CatalogueName {
public:
    explicit CatalogueName(const std::string& path)
        : file(path, O_PATH | O_NOFOLLOW)
        , absent(file.number < 0 && errno == ENOENT)
    {
        if (file.number < 0 || fstat64(file.number, &status) != 0)
            status = {};
        if (S_ISREG(status.st_mode) && !hasItsName(file.number))
            status = {};
    }

    /// Nothing, or something that SQLite may open once it is root's or the daemon's own.
    bool isFit() const { return absent || (S_ISREG(status.st_mode) && status.st_nlink == 1); }
    bool isForeign() const { return !absent && !isTrusted(status.st_uid); }
    bool isMarked() const { return (status.st_mode & notLookedInto) != 0; }

    /// Makes root the owner, through the descriptor, so that it is the file that was looked at.
    bool giveToRoot(mode_t mark = 0) const
    {
        const std::string self = "/proc/self/fd/" + std::to_string(file.number);
        const mode_t mode = (status.st_mode & permissionBits & ~(writableByOthers | notLookedInto)) | mark;
        // Marked before and after: a kill in between must not leave it root's without the mark, which a change of the
        // owner may take away.
        return absent
            || (chmod(self.c_str(), mode) == 0
                && fchownat(file.number, "", 0, static_cast<gid_t>(-1), AT_EMPTY_PATH) == 0
                && chmod(self.c_str(), mode) == 0);
    }

private:
    const OpenFile file;
    const bool absent;
    struct stat64 status;
};

bool addFlag(int descriptor, int flag)
{
    int flags = 0;
    if (ioctl(descriptor, FS_IOC_GETFLAGS, &flags) != 0)
        return false;
    if ((flags & flag) != 0)
        return true;
    flags |= flag;
    return ioctl(descriptor, FS_IOC_SETFLAGS, &flags) == 0;
}

/// Only an empty file can be marked. An index that nobody uses is as good as none: SQLite makes it anew from the log.
void markLeftIndex(const std::string& path)
{
    const OpenFile index(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK);
    if (index.number < 0 || !isFitToOpen(index.number))
        return;
    struct flock inUse = {};
    inUse.l_type = F_WRLCK;
    inUse.l_start = indexInUseByte;
    inUse.l_len = 1;
    int flags = 0;
    if (ioctl(index.number, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_NOCOW_FL) == 0
        && fcntl(index.number, F_SETLK, &inUse) == 0 && ftruncate(index.number, 0) == 0)
        addFlag(index.number, FS_NOCOW_FL);
}

bool isLockedByAnother(int descriptor) { return flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK; }

/// The temporary file, locked and empty; -1 when another daemon is at work in it, or when none can be made.
int openTemporary(const std::string& path)
{
    const OpenFile left(CatalogueName(path).isFit() ? path : "", O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (left.number >= 0 && isLockedByAnother(left.number))
        return -1;
    unlink(path.c_str()); // left by a start that was cut short, or planted
    const int made = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, readableByAll);
    struct stat64 status;
    // Another daemon may have taken it for a left-over before it was locked.
    if (made < 0 || (!isLockedByAnother(made) && fstat64(made, &status) == 0 && status.st_nlink == 1))
        return made;
    close(made);
    return -1;
}

void syncFolderOf(const std::string& path)
{
    const OpenFile folder(folderOf(path), O_RDONLY | O_DIRECTORY);
    if (folder.number >= 0)
        fsync(folder.number);
}

int statusOf(int error) { return error == ENOSPC || error == EDQUOT || error == EFBIG ? SQLITE_FULL : SQLITE_IOERR; }

} // namespace

bool isFitToOpen(const char* path)
{
    struct stat64 status;
    return lstat64(path, &status) != 0 || isFit(status);
}

bool isFitToOpen(int descriptor)
{
    struct stat64 status;
    return fstat64(descriptor, &status) == 0 && isFit(status) && (!S_ISREG(status.st_mode) || hasItsName(descriptor));
}

Admission admitCatalogue(const std::string& path)
{
    const std::string real = withoutLinks(path);
    const CatalogueName main(real);
    const CatalogueName sides[]
        = { CatalogueName(real + "-wal"), CatalogueName(real + "-shm"), CatalogueName(real + "-journal") };
    const CatalogueName& index = sides[1];
    const CatalogueName& journal = sides[2];
    bool foreign = main.isForeign();
    bool marked = main.isMarked();
    bool fit = main.isFit();
    for (const CatalogueName& side : sides) {
        foreign = foreign || side.isForeign();
        marked = marked || side.isMarked();
        fit = fit && side.isFit();
    }
    // A journal of somebody else could name any file, for SQLite to remove it.
    if (!fit || (foreign && geteuid() != 0) || journal.isForeign())
        return Admission::refused;
    if (!foreign)
        return marked ? Admission::untrusted : Admission::trusted;

    // The former owner may still have the index open, and could cut it off under the daemon, which maps it.
    if (index.isForeign())
        unlink((real + "-shm").c_str());
    bool taken = main.giveToRoot(notLookedInto);
    for (const CatalogueName& side : sides)
        taken = taken && (!side.isForeign() || side.giveToRoot(notLookedInto));
    return taken ? Admission::untrusted : Admission::refused;
}

void trustCatalogue(const std::string& path)
{
    const std::string real = withoutLinks(path);
    for (const char* suffix : { "", "-wal", "-shm", "-journal" }) {
        const CatalogueName name(real + suffix);
        if (name.isMarked() && name.isFit() && !name.isForeign())
            name.giveToRoot();
    }
}

void keepCatalogue(const std::string& path)
{
    if (geteuid() != 0)
        return;
    for (const char* suffix : { "", "-wal", "-shm" }) {
        const CatalogueName name(path + suffix);
        if (name.isForeign() && name.isFit())
            name.giveToRoot(notLookedInto); // the next start looks into it: it may have been changed meanwhile
    }
}

bool avoidCopyOnWrite(const std::string& path)
{
    const std::string real = withoutLinks(path);
    const OpenFile folder(folderOf(real), O_RDONLY | O_DIRECTORY);
    return folder.number >= 0 && addFlag(folder.number, FS_NOCOW_FL);
}

void avoidCopyOnWriteOfIndex(const std::string& path)
{
    const std::string index = withoutLinks(path) + "-shm";
    struct stat64 status;
    if (lstat64(index.c_str(), &status) != 0)
        return;
    // With a table of descriptors of its own: to close the file would else take away the locks that this process has on
    // it by another connection, and its lock would not be told from ours.
    std::thread([&index] {
        if (unshare(CLONE_FILES) == 0)
            markLeftIndex(index);
    }).join();
}

/// Moves the complete file to its place, where still nothing is.
static int moveToItsPlace(const std::string& temporaryPath, const std::string& path)
{
    // Asked again, now that the file is locked: whoever had the lock before may be at work in a catalogue that it made.
    struct stat64 status;
    if (stat64(path.c_str(), &status) == 0) {
        unlink(temporaryPath.c_str());
        return SQLITE_OK;
    }
    if (errno != ENOENT)
        return SQLITE_CANTOPEN; // what cannot be looked at may be a good catalogue
    // What is left of a catalogue that somebody removed would be taken for the new one's log, and replayed into it.
    for (const char* leftOver : { "-wal", "-shm", "-journal" })
        unlink((path + leftOver).c_str());
    if (std::rename(temporaryPath.c_str(), path.c_str()) != 0)
        return SQLITE_IOERR;
    syncFolderOf(path);
    return SQLITE_OK;
}

int createCatalogueFile(const std::string& path, const std::string& content)
{
    const std::string temporaryPath = path + ".tmp";
    const int descriptor = openTemporary(temporaryPath);
    if (descriptor < 0)
        return SQLITE_CANTOPEN;
    const int rc = writeDurably(descriptor, content) ? moveToItsPlace(temporaryPath, path) : statusOf(errno);
    if (rc != SQLITE_OK)
        unlink(temporaryPath.c_str());
    close(descriptor);
    return rc;
}
