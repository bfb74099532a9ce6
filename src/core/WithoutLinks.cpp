#include "core/WithoutLinks.h"

#include "core/HeldFolder.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

bool isOwnUser(uid_t user) { return user == 0 || user == geteuid(); }

/// The path of an open file, without links. Where /proc is missing, the resolved path of what is at `path` now.
static std::string pathOf(const FileDescriptor& file, const std::string& path)
{
    char buffer[PATH_MAX];
    const std::string self = "/proc/self/fd/" + std::to_string(file.get());
    const ssize_t length = readlink(self.c_str(), buffer, sizeof buffer);
    if (length > 0)
        return std::string(buffer, static_cast<std::string::size_type>(length));
    return realpath(path.c_str(), buffer) != nullptr ? buffer : std::string();
}

/// A descriptor, for looking only, of what is at a path below an open folder; -1 with errno set on failure. A link at
/// the path's end is followed when a trusted user made it.
static int findFollowingOwnLinks(int folder, std::string path)
{
    constexpr int mostLinks = 8; // links may form a cycle
    for (int links = 0; links < mostLinks; ++links) {
        const int entry = openat(folder, path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
        struct stat64 status;
        if (entry < 0 || (fstat64(entry, &status) == 0 && !S_ISLNK(status.st_mode)))
            return entry;
        const FileDescriptor link(entry);
        char target[PATH_MAX];
        const ssize_t length = isOwnUser(status.st_uid) ? readlinkat(link.get(), "", target, sizeof target) : -1;
        if (length <= 0)
            break;
        path = (target[0] == '/' ? "" : HeldFolder::folderOf(path))
            + std::string(target, static_cast<std::size_t>(length));
    }
    errno = EACCES;
    return -1;
}

std::string resolveOwnLinks(const std::string& path, LinkedFile linked)
{
    std::string folderPath = HeldFolder::folderOf(path);
    if (folderPath.length() > 1)
        folderPath.pop_back(); // a slash at the end would make the kernel follow a link unseen
    const FileDescriptor folder(findFollowingOwnLinks(AT_FDCWD, folderPath));
    if (!folder.isOpen())
        return {};
    std::string kept = pathOf(folder, folderPath) + "/" + HeldFolder::nameOf(path);
    if (linked == LinkedFile::kept)
        return kept;
    const FileDescriptor file(findFollowingOwnLinks(folder.get(), HeldFolder::nameOf(path)));
    if (file.isOpen())
        return pathOf(file, kept);
    return errno == ENOENT ? kept : std::string();
}

/// Opens folder by folder, for a kernel or a sandbox without openat2().
static int openStepByStep(int start, const char* path, int flags, mode_t mode)
{
    int folder = openat(start, *path == '/' ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    while (folder >= 0) {
        path += std::strspn(path, "/");
        const std::size_t length = std::strcspn(path, "/");
        const char* const next = path + length + std::strspn(path + length, "/");
        const bool isLast = *next == '\0';
        char name[NAME_MAX + 1] = ".";
        if (length >= sizeof name) {
            close(folder);
            errno = ENAMETOOLONG;
            return -1;
        }
        if (length > 0) {
            std::memcpy(name, path, length);
            name[length] = '\0';
        }
        const int found = isLast ? openat(folder, name, flags | O_NOFOLLOW, mode)
                                 : openat(folder, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        const int reason = errno;
        close(folder);
        errno = reason;
        if (isLast)
            return found;
        folder = found;
        path = next;
    }
    return -1;
}

int openWithoutLinks(const char* path, int flags, mode_t mode)
{
    return openWithoutLinksBelow(AT_FDCWD, path, flags, mode);
}

int openWithoutLinksBelow(int folder, const char* path, int flags, mode_t mode)
{
    struct open_how how = {};
    how.flags = static_cast<unsigned>(flags);
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = RESOLVE_NO_SYMLINKS;
    const int descriptor = static_cast<int>(syscall(SYS_openat2, folder, path, &how, sizeof how));
    // A kernel before 5.6 or a sandbox refuses the call: systemd's RestrictSUIDSGID= does, with one or the other error.
    return descriptor < 0 && (errno == ENOSYS || errno == EPERM) ? openStepByStep(folder, path, flags, mode)
                                                                 : descriptor;
}

int unlinkWithoutLinks(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    const std::size_t length = slash == nullptr ? 0 : static_cast<std::size_t>(slash + 1 - path);
    char folderPath[PATH_MAX] = "./";
    if (length >= sizeof folderPath) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (length > 0) {
        std::memcpy(folderPath, path, length);
        folderPath[length] = '\0';
    }
    const FileDescriptor folder(openWithoutLinks(folderPath, O_PATH | O_DIRECTORY | O_CLOEXEC));
    return folder.isOpen() ? unlinkat(folder.get(), path + length, 0) : -1;
}
