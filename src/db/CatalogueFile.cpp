#include "db/CatalogueFile.h"

#include "core/DurableFile.h"
#include "core/HeldFolder.h"
#include "core/WithoutLinks.h"
#include "db/CatalogueName.h"
#include "db/FitToOpen.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

namespace {

constexpr mode_t readableByAll = 0644;
/// Every program that has the shared index open holds a lock on this byte of it: SQLite's "deadman switch".
constexpr off_t indexInUseByte = 128;

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

/// Empties and marks an index that nobody uses: only an empty file can be marked, and SQLite makes the content anew
/// from the log.
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

/// Makes the temporary file and locks it. -1 when another daemon has it locked, and when it cannot be made.
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
    // Before it was locked, another daemon may have removed it as a left-over.
    if (made < 0 || (!isLockedByAnother(made) && fstat64(made, &status) == 0 && status.st_nlink == 1))
        return made;
    close(made);
    return -1;
}

int statusOf(int error) { return error == ENOSPC || error == EDQUOT || error == EFBIG ? SQLITE_FULL : SQLITE_IOERR; }

/// Moves the complete file to its place, unless something is there by now.
int moveToItsPlace(const HeldFolder& folder, const std::string& temporaryName, const std::string& name)
{
    // Asked again with the lock held: another daemon that had the lock before may have made the catalogue.
    struct stat64 status;
    if (folder.find(name, status)) {
        folder.remove(temporaryName);
        return SQLITE_OK;
    }
    if (errno != ENOENT)
        return SQLITE_CANTOPEN; // what cannot be looked at may be a good catalogue
    // The side files of a removed catalogue would be taken for those of the new one, and replayed into it.
    for (const char* leftOver : { "-wal", "-shm", "-journal" })
        folder.remove(name + leftOver);
    if (!folder.rename(temporaryName, name))
        return SQLITE_IOERR;
    fsync(folder.get());
    return SQLITE_OK;
}

} // namespace

void keepOwnFile(const std::string& path, const FileIdentity& inUse)
{
    if (geteuid() != 0)
        return;
    const CatalogueName file(HeldFolder(path), HeldFolder::nameOf(path));
    if (file.is(inUse) && file.isForeign() && file.isFit())
        file.giveToRoot(CatalogueName::marked); // it may have been changed meanwhile, so the next start checks it
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
    // On a thread with a descriptor table of its own. With the shared one, closing the file would release the locks
    // that this process has on it through another connection, and F_SETLK would not see those locks as another's.
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
        return errno == ENOMEM || errno == EAGAIN; // these pass and say nothing about the file system
    munmap(mapped, length);
    return true;
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
