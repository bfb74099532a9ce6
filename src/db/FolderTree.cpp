#include "db/VolumeDBManager.h"

#include "db/CatalogueConnection.h"
#include "db/DBOperationException.h"
#include "db/Transaction.h"

#include <sqlite3.h>

#include <unordered_set>

bool VolumeDBManager::deleteFolder(DBFolder& f)
{
    if (!folderExists(f))
        return false;
    updateDeletedFlagForFolders(f.getFolder_id());
    deleteFolderRecord(f.getFolder_id());
    deleteFilesFromFolder(f.getFolder_id());
    return true;
}

void VolumeDBManager::updateDeletedFlagForFolders(int folderId)
{
    forEachFolderBelow(folderId, [this](int child) {
        if (connection->isStopping())
            throw DBOperationException();
        deleteFilesFromFolder(child);
        deleteFolderRecord(child);
    });
}

/// Calls `visit` for every folder below, depth first, each child before its own children. It does not recurse, because
/// a tree may be deeper than the stack of a walk thread. A child's children are listed after `visit` was called for the
/// child. No folder is visited twice: in a damaged catalogue a folder can be its own descendant.
void VolumeDBManager::forEachFolderBelow(int folderId, const std::function<void(int)>& visit)
{
    std::stack<std::vector<int>> levels; // the ids still to visit, the next one last
    std::unordered_set<int> seen { folderId };
    const auto descend = [&](int id) {
        const std::vector<int> children = getListOfFolders(id);
        levels.emplace(children.rbegin(), children.rend());
    };
    descend(folderId);
    while (!levels.empty()) {
        if (levels.top().empty()) {
            levels.pop();
            continue;
        }
        const int child = levels.top().back();
        levels.top().pop_back();
        if (!seen.insert(child).second)
            continue;
        visit(child);
        descend(child);
    }
}

bool VolumeDBManager::releaseOrphans()
{
    bool found = false;
    const int rc = sqlite3_exec(
        connection->get(),
        "select 1 where exists (select 1 from folders where is_deleted=0 and parent_id<>-1 and not exists (select 1 from folders a where a.folder_id=folders.parent_id and a.is_deleted=0)) or exists (select 1 from files where is_deleted=0 and folder_id in (select folder_id from files where folder_id<>0 except select folder_id from folders where is_deleted=0))",
        [](void* noted, int, char**, char**) { return *static_cast<bool*>(noted) = true, 0; }, &found, nullptr);
    if (rc != SQLITE_OK || !found)
        return rc == SQLITE_OK;
    try {
        Transaction transaction(*connection);
        for (const char* text :
            {
                "update folders set parent_id=-1, last_updated_time=strftime('%s','now') where is_deleted=0 and parent_id<>-1 and not exists (select 1 from folders a where a.folder_id=folders.parent_id and a.is_deleted=0)",
                "update files set is_deleted=1, last_updated_time=strftime('%s','now') where is_deleted=0 and folder_id in (select folder_id from files where folder_id<>0 except select folder_id from folders where is_deleted=0)",
            }) {
            if (sqlite3_exec(connection->get(), text, nullptr, nullptr, nullptr) != SQLITE_OK)
                return false;
        }
        transaction.commit();
        return true;
    } catch (const DBOperationException&) {
        return false;
    }
}
