#include "ctl/status/CatalogueState.h"

#include "core/FileDescriptor.h"
#include "core/WithoutLinks.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>

namespace {

constexpr long long coarsestTime = 2; // seconds: the longest step of a file system in use

long long nanoseconds(const timespec& time) { return time.tv_sec * 1000000000LL + time.tv_nsec; }

} // namespace

CatalogueState::CatalogueState(const std::string& catalogue)
{
    const long long now = std::time(nullptr);
    const std::string place = resolveOwnLinks(catalogue, LinkedFile::followed); // the side files are beside that
    for (const char* suffix : { "", "-wal", "-journal" })
        addFile(place + suffix, now);
    addIndexHeader(place + "-shm");
}

void CatalogueState::addFile(const std::string& path, long long now)
{
    struct stat64 status;
    if (stat64(path.c_str(), &status) != 0) {
        description += "none ";
        return;
    }
    description += fmt::format("{}:{}:{}:{}:{} ", status.st_dev, status.st_ino, status.st_size,
        nanoseconds(status.st_mtim), nanoseconds(status.st_ctim));
    settled = settled && std::max(status.st_mtim.tv_sec, status.st_ctim.tv_sec) + coarsestTime <= now;
}

void CatalogueState::addIndexHeader(const std::string& path)
{
    constexpr std::size_t headerBytes = 48;
    const FileDescriptor index(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    std::array<unsigned char, headerBytes> header = {};
    const ssize_t length = index.isOpen() ? read(index.get(), header.data(), header.size()) : -1;
    if (length < 0)
        description += "none";
    for (ssize_t i = 0; i < length; ++i)
        description += fmt::format("{:02x}", header[static_cast<std::size_t>(i)]);
}
