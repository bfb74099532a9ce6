#include "db/VolumeDBManager.h"

#include "classify/Tokenizer.h"
#include "db/CatalogueConnection.h"
#include "db/CataloguePaths.h"
#include "db/Statement.h"

#include <sqlite3.h>
#include <syslog.h>

/// Every path that leads down to the folder, the first element's first: the folder itself is on top.
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
    DBFolder row; // of its own: what the old row had as its parent must not replace what the caller asks for
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
    stmt.run("updateFolder() failed, handleStatus: %d\n"); // the text of updateFolder(): log readers know no other
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
            // The look-up takes the parent's path off the stack too, so a missing parent is passed over and the folder
            // hangs on -1. Walks insert from the top down, where parents exist.
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
    // What the climb ended with, on purpose, not the row just inserted: insertFile() files by it (see there).
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
    } // else the empty path: a top-level folder hangs on the volume's own row, and is found deleted through it
    return folderExists(parent) ? parent.getFolder_id() : -1;
}
