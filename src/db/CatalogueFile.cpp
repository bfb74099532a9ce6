#include "db/CatalogueFile.h"

#include "core/DurableFile.h"
#include "core/HeldFolder.h"
#include "core/WithoutLinks.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>
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

bool isFit(const struct stat64& status)
{
    if (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode))
        return false;
    return !S_ISREG(status.st_mode) || (status.st_nlink <= 1 && isOwnUser(status.st_uid));
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
    CatalogueName(const HeldFolder& folder, const std::string& name)
        : file(folder.open(name, O_PATH))
        , absent(!file.isOpen() && errno == ENOENT)
    {
        if (!file.isOpen() || fstat64(file.get(), &status) != 0)
            status = {};
        if (S_ISREG(status.st_mode) && !hasItsName(file.get()))
            status = {};
    }

    /// Nothing, or something that SQLite may open once it is root's or the daemon's own.
    bool isFit() const { return absent || (S_ISREG(status.st_mode) && status.st_nlink == 1); }
    bool isAbsent() const { return absent; }
    bool isForeign() const { return !absent && !isOwnUser(status.st_uid); }
    bool isMarked() const { return isMarked(status); }
    static bool isMarked(const struct stat64& status) { return (status.st_mode & notLookedInto) != 0; }

    /// Whether an open file is this one. When there was none it is one that has come since, which nobody else may have
    /// had a hand in.
    bool covers(const struct stat64& opened) const
    {
        return absent ? !isMarked(opened) : opened.st_dev == status.st_dev && opened.st_ino == status.st_ino;
    }

    /// Makes root the owner, through the descriptor, so that it is the file that was looked at.
    bool giveToRoot(mode_t mark = 0) const
    {
        const std::string self = "/proc/self/fd/" + std::to_string(file.get());
        const mode_t mode = (status.st_mode & permissionBits & ~(writableByOthers | notLookedInto)) | mark;
        // Marked before and after: a kill in between must not leave it root's without the mark, which a change of the
        // owner may take away.
        return absent
            || (chmod(self.c_str(), mode) == 0
                && fchownat(file.get(), "", 0, static_cast<gid_t>(-1), AT_EMPTY_PATH) == 0
                && chmod(self.c_str(), mode) == 0);
    }

private:
    const FileDescriptor file;
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
    const FileDescriptor index(openWithoutLinks(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!index.isOpen() || !isFitToOpen(index.get()))
        return;
    struct flock inUse = {};
    inUse.l_type = F_WRLCK;
    inUse.l_start = indexInUseByte;
    inUse.l_len = 1;
    int flags = 0;
    if (ioctl(index.get(), FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_NOCOW_FL) == 0
        && fcntl(index.get(), F_SETLK, &inUse) == 0 && ftruncate(index.get(), 0) == 0)
        addFlag(index.get(), FS_NOCOW_FL);
}

bool isLockedByAnother(int descriptor) { return flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK; }

/// The temporary file, locked and empty; -1 when another daemon is at work in it, or when none can be made.
int openTemporary(const HeldFolder& folder, const std::string& name)
{
    if (CatalogueName(folder, name).isFit()) {
        const FileDescriptor left(folder.open(name, O_RDONLY | O_NONBLOCK));
        if (left.isOpen() && isLockedByAnother(left.get()))
            return -1;
    }
    folder.remove(name); // left by a start that was cut short, or planted
    const int made = folder.open(name, O_WRONLY | O_CREAT | O_EXCL, readableByAll);
    struct stat64 status;
    // Another daemon may have taken it for a left-over before it was locked.
    if (made < 0 || (!isLockedByAnother(made) && fstat64(made, &status) == 0 && status.st_nlink == 1))
        return made;
    close(made);
    return -1;
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

/// The files under the names of a catalogue, held as they were found.
class CatalogueAdmission::Files {
public:
    explicit Files(const std::string& cataloguePath)
        : path(cataloguePath)
        , folder(path)
        , verdict(judge())
    {
    }

    enum Verdict { refused, untrusted, trusted };
    Verdict getVerdict() const { return verdict; }

    void trust() const
    {
        for (const auto& file : files) {
            if (file->isMarked() || file->isForeign())
                file->giveToRoot();
        }
    }

    bool covers(const char* opened, int descriptor) const
    {
        if (std::strncmp(opened, path.c_str(), path.length()) != 0)
            return true;
        struct stat64 status;
        for (std::size_t name = 0; name < files.size(); ++name) {
            if (std::strcmp(opened + path.length(), suffixes[name]) == 0)
                return fstat64(descriptor, &status) == 0 && files[name]->covers(status);
        }
        return true;
    }

private:
    enum Name { mainFile, logFile, indexFile, journalFile };
    static constexpr const char* suffixes[] = { "", "-wal", "-shm", "-journal" };

    std::string nameFor(std::size_t name) const { return HeldFolder::nameOf(path) + suffixes[name]; }

    Verdict judge()
    {
        bool foreign = false;
        bool marked = false;
        bool fit = true;
        for (std::size_t name = 0; name < files.size(); ++name) {
            const CatalogueName& file = files[name].emplace(folder, nameFor(name));
            foreign = foreign || file.isForeign();
            marked = marked || file.isMarked();
            fit = fit && file.isFit();
        }
        // A journal of somebody else could name any file, for SQLite to remove it.
        if (!fit || files[journalFile]->isForeign() || (foreign && !takeOver()))
            return refused;
        return foreign || marked ? untrusted : trusted;
    }

    bool takeOver()
    {
        if (geteuid() != 0)
            return false;
        // The former owner may still have the index open, and could cut it off under the daemon, which maps it.
        if (files[indexFile]->isForeign()) {
            folder.remove(nameFor(indexFile));
            if (!files[indexFile].emplace(folder, nameFor(indexFile)).isAbsent())
                return false;
        }
        return files[mainFile]->giveToRoot(notLookedInto)
            && (!files[logFile]->isForeign() || files[logFile]->giveToRoot(notLookedInto));
    }

    const std::string path;
    const HeldFolder folder;
    std::array<std::optional<CatalogueName>, std::size(suffixes)> files;
    const Verdict verdict;
};

static thread_local const CatalogueAdmission* currentAdmission = nullptr;

CatalogueAdmission::CatalogueAdmission(const std::string& path)
    : files(std::make_unique<const Files>(path))
{
    currentAdmission = this;
}

CatalogueAdmission::~CatalogueAdmission() { currentAdmission = nullptr; }

const CatalogueAdmission* CatalogueAdmission::current() { return currentAdmission; }

bool CatalogueAdmission::isRefused() const { return files->getVerdict() == Files::refused; }

bool CatalogueAdmission::isTrusted() const { return files->getVerdict() == Files::trusted; }

void CatalogueAdmission::trust() const { files->trust(); }

bool CatalogueAdmission::covers(const char* path, int descriptor) const { return files->covers(path, descriptor); }

void keepCatalogue(const std::string& path)
{
    if (geteuid() != 0)
        return;
    const HeldFolder folder(path);
    for (const char* suffix : { "", "-wal", "-shm" }) {
        const CatalogueName name(folder, HeldFolder::nameOf(path) + suffix);
        if (name.isForeign() && name.isFit())
            name.giveToRoot(notLookedInto); // the next start looks into it: it may have been changed meanwhile
    }
}

bool avoidCopyOnWrite(const std::string& path)
{
    const HeldFolder folder(path, O_RDONLY);
    return folder.isOpen() && addFlag(folder.get(), FS_NOCOW_FL);
}

void avoidCopyOnWriteOfIndex(const std::string& path)
{
    const std::string index = path + "-shm";
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

bool canMapIndex(const std::string& path)
{
    const FileDescriptor index(openWithoutLinks((path + "-shm").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!index.isOpen())
        return true;
    constexpr std::size_t length = 1;
    void* const mapped = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, index.get(), 0);
    if (mapped == MAP_FAILED)
        return errno == ENOMEM || errno == EAGAIN; // a passing want
    munmap(mapped, length);
    return true;
}

/// Moves the complete file to its place, where still nothing is.
static int moveToItsPlace(const HeldFolder& folder, const std::string& temporaryName, const std::string& name)
{
    // Asked again, now that the file is locked: whoever had the lock before may be at work in a catalogue that it made.
    struct stat64 status;
    if (folder.find(name, status)) {
        folder.remove(temporaryName);
        return SQLITE_OK;
    }
    if (errno != ENOENT)
        return SQLITE_CANTOPEN; // what cannot be looked at may be a good catalogue
    // What is left of a catalogue that somebody removed would be taken for the new one's log, and replayed into it.
    for (const char* leftOver : { "-wal", "-shm", "-journal" })
        folder.remove(name + leftOver);
    if (!folder.rename(temporaryName, name))
        return SQLITE_IOERR;
    fsync(folder.get());
    return SQLITE_OK;
}

int createCatalogueFile(const std::string& path, const std::string& content)
{
    const HeldFolder folder(path, O_RDONLY);
    const std::string name = HeldFolder::nameOf(path);
    const std::string temporaryName = name + ".tmp";
    const FileDescriptor made(folder.isOpen() ? openTemporary(folder, temporaryName) : -1);
    if (!made.isOpen())
        return SQLITE_CANTOPEN;
    const int rc = writeDurably(made.get(), content) ? moveToItsPlace(folder, temporaryName, name) : statusOf(errno);
    if (rc != SQLITE_OK)
        folder.remove(temporaryName);
    return rc;
}
