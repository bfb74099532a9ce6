#include "ctl/report/OutputFile.h"

#include "ctl/FileReplacement.h"
#include "ctl/Problem.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace {

[[noreturn]] void fail(const std::string& path, const char* what)
{
    throw Problem(path, std::string(what) + ": " + std::strerror(errno), "Name another file with -o");
}

} // namespace

OutputFile::OutputFile(const std::string& place)
    : path(place)
{
    if (path.empty())
        throw Problem("-o", "The name of the file is empty", "Name a file, or '-' for standard output");
    char folder[PATH_MAX];
    if (realpath(folderOf(path).c_str(), folder) == nullptr)
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

void OutputFile::replace(const std::string& content) const
{
    if (!replaceFile(path, content, modeInPlaceOf(path)))
        fail(path, "The report could not be written");
}
