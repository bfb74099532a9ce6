#include "ctl/changes/CursorFile.h"

#include "ctl/FileReplacement.h"
#include "ctl/Problem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr std::size_t longest = 1000000; // far more than thousands of volumes need

[[noreturn]] void fail(const std::string& path, const std::string& what)
{
    const int error = errno;
    throw Problem(path, what + ": " + std::strerror(error), "Name a file in a folder that you may write to");
}

} // namespace

CursorFile::CursorFile(const std::string& path)
    : file(path)
{
    const std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), std::free);
    if (real != nullptr)
        file = real.get();
    struct stat64 status;
    if (real != nullptr && stat64(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        throw Problem(file, "This is no regular file", "Name another file for the cursor");
    if (real == nullptr && lstat64(file.c_str(), &status) == 0)
        throw Problem(file, "This is a link to nothing", "Make the file, or name another one for the cursor");
    if (access(folderOf(file).c_str(), W_OK | X_OK) != 0)
        fail(file, "The cursor cannot be stored here");
}

std::string CursorFile::read() const
{
    const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0 && errno == ENOENT)
        return {};
    if (descriptor < 0)
        fail(file, "The cursor cannot be read");
    std::string text(longest, '\0');
    std::size_t length = 0;
    ssize_t got = 0;
    while ((got = ::read(descriptor, text.data() + length, text.size() - length)) > 0)
        length += static_cast<std::size_t>(got);
    close(descriptor);
    if (got < 0)
        fail(file, "The cursor cannot be read");
    text.resize(length);
    return text;
}

void CursorFile::write(const std::string& text) const
{
    if (!replaceFile(file, text + "\n", modeInPlaceOf(file)))
        fail(file, "The cursor cannot be stored");
}
