#include "ctl/status/FigureCache.h"

#include "core/FileDescriptor.h"
#include "ctl/Fnv.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace {

constexpr std::size_t largestFile = 16384;

bool isOwnFolder(const std::string& path)
{
    struct stat64 status;
    return stat64(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid();
}

/// The folder that the path is in.
std::string folderAbove(const std::string& path)
{
    const std::size_t last = path.find_last_not_of('/');
    const std::size_t slash = last == std::string::npos ? last : path.rfind('/', last);
    return slash == std::string::npos ? "/" : path.substr(0, slash + 1);
}

std::string environmentPath(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr && value[0] == '/' ? value : "";
}

/// What the file begins with when it is of this catalogue in this state. The number stands for what the figures mean.
std::string heading(const std::string& path, const std::string& state)
{
    return fmt::format("quarrowctl figures 2\n{:016x} {}\n{}\n", fnv(path), path.size(), state);
}

std::string numbers(const CatalogueFigures& figures)
{
    std::string text;
    for (const CatalogueFigures::Kind& kind : figures.kinds)
        text += fmt::format("{} {} ", kind.files, kind.bytes);
    return text
        + fmt::format("{} {} {} {} {}\n", figures.folders, figures.deletedFolders, figures.deletedFiles,
            figures.newestChange, figures.oldestFolder);
}

/// Tells damage from content. Not against anybody's will: only the owner writes here.
std::string withChecksum(const std::string& text) { return text + fmt::format("{:016x}\n", fnv(text)); }

/// The content of a regular file of this user's; empty when there is none.
std::string readOwnFile(const std::string& path)
{
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat64 status;
    if (!file.isOpen() || fstat64(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != geteuid())
        return {};
    std::array<char, largestFile> buffer;
    const ssize_t length = read(file.get(), buffer.data(), buffer.size());
    return length > 0 ? std::string(buffer.data(), static_cast<std::size_t>(length)) : std::string();
}

} // namespace

FigureCache::FigureCache()
    : base(environmentPath("XDG_CACHE_HOME"))
{
    const std::string home = environmentPath("HOME");
    // Not in somebody else's home, which sudo may leave in the environment.
    if (base.empty() && isOwnFolder(home))
        base = home + "/.cache";
    folder = base + "/quarrow";
}

std::string FigureCache::fileOf(const std::string& path) const
{
    return fmt::format("{}/figures-{:016x}", folder, fnv(path));
}

std::optional<CatalogueFigures> FigureCache::find(const std::string& path, const std::string& state) const
{
    const std::string text = base.empty() ? std::string() : readOwnFile(fileOf(path));
    const std::string begin = heading(path, state);
    if (text.compare(0, begin.size(), begin) != 0)
        return std::nullopt;
    std::istringstream fields(text.substr(begin.size()));
    CatalogueFigures figures;
    for (CatalogueFigures::Kind& kind : figures.kinds)
        fields >> kind.files >> kind.bytes;
    fields >> figures.folders >> figures.deletedFolders >> figures.deletedFiles >> figures.newestChange
        >> figures.oldestFolder;
    if (!fields || text != withChecksum(begin + numbers(figures)))
        return std::nullopt;
    return figures;
}

bool FigureCache::makeFolder() const
{
    constexpr mode_t ownersOnly = 0700;
    if (base.empty())
        return false;
    // Where they are there already, mkdir() fails, and whose they are is all that counts. Nothing is made in somebody
    // else's folder: root's new ~/.cache would lock out its owner.
    if (isOwnFolder(folderAbove(base)))
        mkdir(base.c_str(), ownersOnly);
    if (!isOwnFolder(base))
        return false;
    mkdir(folder.c_str(), ownersOnly);
    return isOwnFolder(folder);
}

void FigureCache::keep(const std::string& path, const std::string& state, const CatalogueFigures& figures) const
{
    if (!makeFolder())
        return;
    const std::string text = withChecksum(heading(path, state) + numbers(figures));
    std::string temporary = fileOf(path) + ".XXXXXX"; // mode 0600, by mkostemp()
    const FileDescriptor file(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file.isOpen())
        return;
    const bool isWritten = write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    // Not synced: what a power cut leaves half done has no right checksum.
    if (!isWritten || std::rename(temporary.c_str(), fileOf(path).c_str()) != 0)
        unlink(temporary.c_str());
}
