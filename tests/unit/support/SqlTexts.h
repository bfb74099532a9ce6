#pragma once

#include <string>

// The statements of the catalogue as SQLite is given them, doubled blanks and all, each ended by a newline. Values are
// passed as SQL writes them: "?" for one that is not put in, "'/v'", "7".

namespace sql {

inline std::string selectFolder(const std::string& condition)
{
    return "select folder_id, parent_id, path, is_deleted, last_updated_time, modified_time, created_time, name from"
           " folders where "
        + condition + "\n";
}
inline std::string anyFolder(const std::string& path) { return selectFolder("path=" + path); }
inline std::string liveFolder(const std::string& path) { return selectFolder("path=" + path + " and is_deleted=0"); }
inline std::string liveFoldersIn(const std::string& id)
{
    return selectFolder("parent_id=" + id + " and is_deleted=0");
}
inline std::string liveIdsIn(const std::string& id)
{
    return "select a.folder_id from folders a where a.parent_id = " + id + " and a.is_deleted = 0\n";
}

/// `values`: all between the parentheses.
inline std::string insertIntoFolders(const std::string& values)
{
    return "insert into folders( parent_id  , path  , name  , is_deleted  , modified_time  , last_updated_time  ,"
           " created_time  , is_hidden ) values("
        + values + ")\n";
}
inline std::string markFolder(const std::string& id)
{
    return "update folders set is_deleted = 1, last_updated_time=strftime('%s','now')  where folder_id = " + id + "\n";
}

inline std::string anyFile(const std::string& path, const std::string& name, const std::string& andLive = "")
{
    return "select file_id , folder_id , path , name , size , category , last_updated_time , modified_time ,"
           " created_time from  files  where  path="
        + path + "  and name=" + name + andLive + "\n";
}
inline std::string liveFile(const std::string& path, const std::string& name)
{
    return anyFile(path, name, " and is_deleted=0");
}
inline std::string liveFilesIn(const std::string& folderId)
{
    return "select path , name , category  , size  , modified_time , created_time from  files  where  folder_id="
        + folderId + "  and is_deleted=0 \n";
}

/// `values`: all between the parentheses.
inline std::string insertIntoFiles(const std::string& values)
{
    return "insert into files( folder_id  , name  , path  , size  , last_updated_time  , is_deleted  , modified_time ,"
           " created_time , category , is_hidden) values("
        + values + ")\n";
}
inline std::string markFile(const std::string& id)
{
    return "update files set is_deleted=1, last_updated_time=strftime('%s','now') where file_id = " + id + "\n";
}
inline std::string markFilesIn(const std::string& folderId)
{
    return "update files set is_deleted=1, last_updated_time=strftime('%s','now')  where folder_id = " + folderId
        + "\n";
}

// Parts by which a statement is told from all others.

inline const char* const lookUpLiveFolder = "from folders where path=? and is_deleted=0";
inline const char* const listFolderIds = "select a.folder_id";
inline const char* const listFiles = "select path , name , modified_time , created_time from  files";
inline const char* const addFolder = "insert into folders";
inline const char* const addFile = "insert into files";
inline const char* const markAFolder = "update folders set is_deleted = 1";

} // namespace sql
