#include "ctl/report/OutputFile.h"

#include "ctl/Problem.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string folderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

[[noreturn]] void fail(const std::string& path, const char* what)
{
    throw Problem(path, std::string(what) + ": " + std::strerror(errno), "Name another file with -o");
}

/// Whether all bytes have reached the disk.
bool writeAll(int descriptor, std::string_view content)
{
    while (!content.empty()) {
        const ssize_t written = write(descriptor, content.data(), content.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return fsync(descriptor) == 0;
}

/// The mode of the file that is replaced, else what a new one gets.
mode_t modeFor(const std::string& path)
{
    struct stat64 status;
    if (lstat64(path.c_str(), &status) == 0 && S_ISREG(status.st_mode))
        return status.st_mode & 0777;
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

} // namespace

OutputFile::OutputFile(const std::string& place)
    : path(place)
{
    char folder[PATH_MAX];
    if (path.empty() || realpath(folderOf(path).c_str(), folder) == nullptr)
        fail(path, "The report cannot be written there");
    const char* const slash = std::strrchr(folder, '/');
    if (std::strcmp(slash + 1, ".quarrow") == 0)
        throw Problem(path, "Only the daemon writes into this folder", "Name another file with -o");
    struct stat64 status;
    if (path.back() == '/' || (lstat64(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)))
        throw Problem(path, "This is no regular file, so it is not replaced",
            "Name another file with -o, or '-' for "
            "standard output");
}

void OutputFile::replace(std::string_view content) const
{
    std::string temporary = folderOf(path) + ".quarrow-report-XXXXXX";
    const int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
    if (descriptor < 0)
        fail(path, "The report cannot be written there");
    const bool written = fchmod(descriptor, modeFor(path)) == 0 && writeAll(descriptor, content);
    const int reason = errno;
    const bool closed = close(descriptor) == 0;
    if (written && closed && std::rename(temporary.c_str(), path.c_str()) == 0)
        return;
    if (!written)
        errno = reason;
    const int last = errno;
    unlink(temporary.c_str());
    errno = last;
    fail(path, "The report could not be written");
}
