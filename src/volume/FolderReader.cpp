#include "volume/FolderReader.h"

#include "volume/Links.h"

#include <unistd.h>

#include <cerrno>

bool IsDotOrDotDot(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

FolderReader::FolderReader(const std::string& path, const std::string& configuredPath)
    : directory(nullptr)
{
    const int descriptor = openFolder(path, configuredPath);
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
