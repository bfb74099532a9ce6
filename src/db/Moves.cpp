#include "db/VolumeDBManager.h"

#include "db/CatalogueConnection.h"
#include "db/CataloguePaths.h"
#include "db/DBOperationException.h"

#include <syslog.h>

#include <cstdio>
#include <ctime>
#include <queue>
#include <unordered_set>

namespace {

/// The path of an entry below `from`, with `from` replaced by `to`. The replaced part begins at the first character of
/// the path that occurs anywhere in `from`. Both begin with a slash, so that is the beginning of the path.
std::string movedPath(std::string path, const std::string& from, const std::string& to)
{
    const std::string::size_type start = path.find_first_of(from);
    return start == std::string::npos ? path : path.replace(start, from.length(), to);
}

} // namespace

bool VolumeDBManager::moveFile(DBFile& src, DBFile& dst)
{
    DBFolder srcFolder;
    srcFolder.setPath(folderPathOf(src.getPath()));
    if (!folderExists(srcFolder) || fileExists(dst) || !fileExists(src))
        return false;
    DBFolder dstFolder;
    dstFolder.setPath(folderPathOf(dst.getPath()));
    const std::string dstFolderPath = dstFolder.getPath();
    if (!folderExists(dstFolder))
        insertFolder(dstFolder, false);
    dst.setFile_id(src.getFile_id());
    dst.setFolder_id(dstFolder.getFolder_id());
    dst.setPath(dstFolderPath + "/" + dst.getName());
    dst.setModified_time(src.getModified_time());
    dst.setCreated_time(src.getCreated_time());
    dst.setSize(src.getSize());
    insertFile(dst);
    deleteFile(src);
    return true;
}

bool VolumeDBManager::moveFolder(DBFolder& src, DBFolder& dst)
{
    std::printf("Moving %s to %s\n", src.getPath().c_str(), dst.getPath().c_str());
    const std::string inside = src.getPath() + "/";
    // No disk moves a folder into itself, so the source row is out of date. The copies would be copied again, for ever.
    if (folderExists(dst) || dst.getPath().compare(0, inside.length(), inside) == 0)
        return false;
    const std::time_t start = std::time(nullptr);
    std::queue<DBFolder> folders; // breadth first, so that parents have rows before their children
    folders.push(src);
    std::unordered_set<int> seen { src.getFolder_id() }; // see forEachFolderBelow()
    while (!folders.empty()) {
        if (connection->isStopping())
            throw DBOperationException();
        DBFolder current = folders.front();
        folders.pop();
        moveContent(current, src, dst);
        for (const DBFolder& child : getFolderListByFolder(current)) {
            if (seen.insert(child.getFolder_id()).second)
                folders.push(child);
        }
    }
    deleteFolder(src);
    syslog(LOG_LOCAL5 | LOG_INFO, "The time taken to move %s to %s is %d\n", src.getPath().c_str(),
        dst.getPath().c_str(), static_cast<int>(std::time(nullptr) - start));
    return true;
}

/// Inserts one folder of a moved tree at its new place, with its files, and marks the old files deleted.
void VolumeDBManager::moveContent(DBFolder& from, DBFolder& src, DBFolder& dst)
{
    DBFolder moved;
    moved.resetFolder();
    moved.setPath(movedPath(from.getPath(), src.getPath(), dst.getPath()));
    moved.setCreated_time(from.getCreated_time());
    moved.setModified_time(from.getModified_time());
    insertFolder(moved, false);

    for (DBFile& old : getFileListByFolder(from)) {
        const std::string path = movedPath(old.getPath(), src.getPath(), dst.getPath());
        std::printf("Replaced the path to %s\n", path.c_str());
        DBFile file;
        file.reset();
        file.setName(old.getName());
        file.setPath(path);
        file.setCategory(old.getCategory());
        file.setCreated_time(old.getCreated_time());
        file.setModified_time(old.getModified_time());
        file.setSize(old.getSize());
        std::printf("Inserting file %s\n", path.c_str());
        insertFile(file);
        if (fileExists(old)) // the list has no ids
            deleteFile(old);
    }
}
