#include "volume/FolderReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

bool IsDotOrDotDot(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

FolderReader::FolderReader(const std::string& path, Links links)
    : directory(nullptr)
{
    const int linkFlag = links == follow ? 0 : O_NOFOLLOW;
    const int descriptor = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC | linkFlag);
    if (descriptor < 0)
        return;
    directory = fdopendir(descriptor);
    if (directory == nullptr)
        close(descriptor);
}

FolderReader::~FolderReader()
{
    if (directory != nullptr)
        closedir(directory);
}

const dirent* FolderReader::next()
{
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(directory);
        if (entry == nullptr) {
            failed = errno != 0;
            return nullptr;
        }
        if (entry->d_name[0] != '\0' && !IsDotOrDotDot(entry->d_name))
            return entry;
    }
}
