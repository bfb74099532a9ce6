#include "db/CataloguePaths.h"

#include "classify/Tokenizer.h"
#include "db/VolumeDBManager.h"

int isHiddenPath(const std::string& path) { return path.find("/.") != std::string::npos ? 1 : 0; }

std::string folderPathOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

int VolumeDBManager::getPathElementCount(std::string path)
{
    Tokenizer elements(path, "/");
    int count = 0;
    while (!elements.next().empty())
        ++count;
    return count - 1;
}

std::string VolumeDBManager::getLastElementOfPathFromFullPath(std::string path)
{
    return path.substr(path.rfind('/') + 1); // without a slash npos + 1 is 0, which gives the whole path
}
