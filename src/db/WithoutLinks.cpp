#include "db/WithoutLinks.h"

#include "core/FileDescriptor.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

int openWithoutLinks(const char* path, int flags, mode_t mode)
{
    struct open_how how = {};
    how.flags = static_cast<unsigned>(flags);
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = RESOLVE_NO_SYMLINKS;
    const int descriptor = static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how));
    // A kernel that does not know the call, or a sandbox that does not.
    if (descriptor < 0 && (errno == ENOSYS || errno == EPERM))
        return open(path, flags | O_NOFOLLOW, mode);
    return descriptor;
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
