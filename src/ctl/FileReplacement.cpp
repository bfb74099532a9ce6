#include "ctl/FileReplacement.h"

#include "core/DurableFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

bool writeAndClose(int descriptor, const std::string& content, mode_t mode)
{
    const bool written = fchmod(descriptor, mode) == 0 && writeDurably(descriptor, content);
    const int reason = errno;
    const bool closed = close(descriptor) == 0;
    if (!written)
        errno = reason;
    return written && closed;
}

/// A power cut is not to bring the former file back.
void syncFolder(const std::string& folder)
{
    const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return;
    fsync(descriptor);
    close(descriptor);
}

} // namespace

std::string folderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

bool replaceFile(const std::string& path, const std::string& content, mode_t mode)
{
    std::string temporary = path + ".XXXXXX";
    const int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
    if (descriptor < 0)
        return false;
    if (!writeAndClose(descriptor, content, mode) || std::rename(temporary.c_str(), path.c_str()) != 0) {
        const int reason = errno;
        unlink(temporary.c_str());
        errno = reason;
        return false;
    }
    syncFolder(folderOf(path));
    return true;
}

mode_t modeInPlaceOf(const std::string& path)
{
    struct stat64 status;
    if (lstat64(path.c_str(), &status) == 0 && S_ISREG(status.st_mode))
        return status.st_mode & 0777;
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}
