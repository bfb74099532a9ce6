#include "db/VolumeDBManager.h"

#include "db/Statement.h"

namespace {

/// Reads all columns of the folder select list, in its order.
void readFolderRow(const Statement& row, DBFolder& f)
{
    f.setFolder_id(row.columnInt(0));
    f.setParent_id(row.columnInt(1));
    f.setPath(row.columnText(2));
    f.setIs_deleted(row.columnInt(3) != 0);
    f.setLast_updated_time(row.columnInt(4));
    f.setModified_time(row.columnInt(5));
    f.setCreated_time(row.columnInt(6));
    f.setName(row.columnText(7));
}

} // namespace

bool VolumeDBManager::folderExists(DBFolder& f)
{
    const std::string path = f.getPath();
    Statement stmt(*connection,
        "select folder_id, parent_id, path, is_deleted, last_updated_time, modified_time, created_time, name from folders where path=? and is_deleted=0");
    stmt.bind(path);
    bool found = false;
    while (stmt.nextRow()) {
        readFolderRow(stmt, f);
        f.setIs_deleted(false);
        found = true;
    }
    stmt.check("folderExists() failed, handleStatus: %d\n");
    return found;
}

bool VolumeDBManager::folderRowExists(DBFolder& f)
{
    const std::string path = f.getPath();
    Statement stmt(*connection,
        "select folder_id, parent_id, path, is_deleted, last_updated_time, modified_time, created_time, name from folders where path=?");
    stmt.bind(path);
    bool found = false;
    while (stmt.nextRow()) {
        f.setFolder_id(stmt.columnInt(0));
        f.setParent_id(stmt.columnInt(1));
        f.setPath(stmt.columnText(2));
        f.setName(stmt.columnText(7));
        f.setIs_deleted(false); // whatever the column holds: the caller is about to revive the row
        found = true;
    }
    stmt.check("folderExists() failed, handleStatus: %d\n"); // on purpose folderExists()'s text: log readers know it
    return found;
}

std::string VolumeDBManager::findRootFolder(std::string path)
{
    Statement stmt(*connection, "select path from  folders  where  path=?  and parent_id=-1  and is_deleted=0");
    stmt.bind(path);
    std::string root;
    while (stmt.nextRow())
        root = stmt.columnText(0);
    stmt.check("findRootFolder() failed, handleStatus: %d\n");
    return root;
}

bool VolumeDBManager::findFolderByFolderId(DBFolder& f)
{
    Statement stmt(*connection,
        "select folder_id, parent_id, path, is_deleted, last_updated_time, modified_time, created_time, name from folders where folder_id=? and is_deleted=0");
    stmt.bind(f.getFolder_id());
    bool found = false;
    while (stmt.nextRow()) {
        readFolderRow(stmt, f);
        found = true;
    }
    stmt.check("findFolderByFolderId() failed, handleStatus: %d\n");
    return found;
}

std::list<DBFolder> VolumeDBManager::getFolderListByFolder(DBFolder& f)
{
    Statement stmt(*connection,
        "select folder_id, parent_id, path, is_deleted, last_updated_time, modified_time, created_time, name from folders where parent_id=? and is_deleted=0");
    stmt.bind(f.getFolder_id());
    std::list<DBFolder> children;
    while (stmt.nextRow())
        readFolderRow(stmt, children.emplace_back());
    stmt.check("getFolderListByFolder() failed, handleStatus: %d\n");
    return children;
}

std::vector<int> VolumeDBManager::getListOfFolders(int parentId)
{
    Statement stmt(*connection, "select a.folder_id from folders a where a.parent_id = ? and a.is_deleted = 0");
    stmt.bind(parentId);
    std::vector<int> ids;
    while (stmt.nextRow())
        ids.push_back(stmt.columnInt(0));
    stmt.check("getListOfFolders() failed, handleStatus: %d\n");
    return ids;
}

bool VolumeDBManager::updateFolder(DBFolder& f)
{
    Statement stmt(*connection,
        "update folders set last_updated_time=strftime('%s','now'), modified_time=?, created_time=? where folder_id = ?");
    stmt.bind(f.getModified_time()).bind(f.getCreated_time()).bind(f.getFolder_id());
    stmt.run("updateFolder() failed, handleStatus: %d\n");
    return true;
}

bool VolumeDBManager::deleteFolderRecord(int folderId)
{
    Statement stmt(
        *connection, "update folders set is_deleted = 1, last_updated_time=strftime('%s','now')  where folder_id = ?");
    stmt.bind(folderId);
    stmt.run("deleteFolderRecord() failed, handleStatus: %d\n");
    return true;
}
