#include "db/VolumeDBManager.h"

#include "classify/Tokenizer.h"
#include "db/CatalogueConnection.h"
#include "db/CataloguePaths.h"
#include "db/Statement.h"

#include <sqlite3.h>
#include <syslog.h>

/// The paths of the folder and of all folders above it, the shortest first. So the folder itself is on top.
static std::stack<std::string> pathsDownTo(const std::string& folderPath)
{
    std::stack<std::string> paths;
    std::string prefix;
    Tokenizer elements(folderPath, "/");
    for (std::string element = elements.next(); !element.empty(); element = elements.next()) {
        prefix += "/" + element;
        paths.push(prefix);
    }
    return paths;
}

int VolumeDBManager::insertIndividualFolder(DBFolder& f)
{
    DBFolder row; // not `f`: the old row's parent must not replace the parent that the caller asks for
    row.setPath(f.getPath());
    if (!folderRowExists(row)) {
        const std::string path = f.getPath();
        const std::string name = getLastElementOfPathFromFullPath(path);
        Statement stmt(*connection,
            "insert into folders( parent_id  , path  , name  , is_deleted  , modified_time  , last_updated_time  , created_time  , is_hidden ) values(?,?,?,?,?,strftime('%s','now'),?,?)",
            Statement::lastDecides);
        stmt.bind(f.getParent_id()).bind(path).bind(name).bind(0).bind(f.getModified_time()).bind(f.getCreated_time());
        stmt.bind(isHiddenPath(path));
        stmt.run("insertIndividualFolder() failed, handleStatus: %d\n");
        return static_cast<int>(sqlite3_last_insert_rowid(connection->get()));
    }

    f.setFolder_id(row.getFolder_id());
    f.setName(row.getName());
    f.setIs_deleted(false);
    syslog(LOG_LOCAL5 | LOG_INFO, "Row for folder %s exists in the DB so updating it\n", f.getPath().c_str());
    Statement stmt(*connection,
        "update folders   set is_deleted = 0, modified_time=?, last_updated_time=strftime('%s', 'now') , created_time=?, parent_id=?  where folder_id=?");
    stmt.bind(f.getModified_time()).bind(f.getCreated_time()).bind(f.getParent_id()).bind(f.getFolder_id());
    stmt.run("updateFolder() failed, handleStatus: %d\n"); // on purpose updateFolder()'s text: log readers know it
    return f.getFolder_id();
}

bool VolumeDBManager::insertFolder(DBFolder& f, bool isRoot)
{
    if (folderExists(f))
        return false;
    if (isRoot) {
        f.setParent_id(-1);
        insertIndividualFolder(f);
        return true;
    }

    std::stack<std::string> paths = pathsDownTo(f.getPath());
    DBFolder work;
    while (!paths.empty()) {
        work.resetFolder();
        work.setPath(paths.top());
        paths.pop();
        if (!folderExists(work)) {
            // The look-up takes the parent's path off the stack as well, on purpose: a missing parent is passed over,
            // and the folder gets the parent_id -1. Walks insert from the top down, so their folders have parents.
            work.setParent_id(findParentIdForFolderPath(&paths));
            if (work.getPath() == f.getPath()) {
                work.setModified_time(f.getModified_time());
                work.setCreated_time(f.getCreated_time());
            }
            insertIndividualFolder(work);
        } else if (work.getParent_id() == -1) {
            break;
        }
    }
    // On purpose the last folder of the climb, not the row that was inserted: insertFile() uses it, see there.
    f.setFolder_id(work.getFolder_id());
    f.setParent_id(work.getParent_id());
    f.setName(work.getName());
    return true;
}

int VolumeDBManager::findParentIdForFolderPath(std::stack<std::string>* paths)
{
    DBFolder parent;
    if (!paths->empty()) {
        parent.setPath(paths->top());
        paths->pop();
    } // else the empty path: the parent of a top-level folder is the volume's own row, if there is one
    return folderExists(parent) ? parent.getFolder_id() : -1;
}
