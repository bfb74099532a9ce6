#include "support/CatalogueDump.h"

#include "support/CatalogueReader.h"

std::string dumpFoldersByPath(const std::string& dbPath)
{
    return queryCatalogue(dbPath,
        "select '['||f.path||'] '||case f.parent_id when -1 then 'root' else 'in ['||coalesce(p.path, '?')||']' end"
        "||case f.is_deleted when 0 then '' else ' deleted' end"
        " from Folders f left join Folders p on p.folder_id=f.parent_id"
        " where f.path not like '/.quarrow%' order by f.path");
}

std::string dumpFilesByPath(const std::string& dbPath)
{
    return queryCatalogue(dbPath,
        "select '['||f.path||'] '||f.category||' in ['||coalesce(p.path, '?')||']'"
        "||case f.is_deleted when 0 then '' else ' deleted' end"
        " from Files f left join Folders p on p.folder_id=f.folder_id"
        " where f.path not like '/.quarrow%' order by f.path");
}

std::string dumpFoldersById(const std::string& dbPath)
{
    return queryCatalogue(dbPath,
        "select folder_id, 'in', parent_id, quote(path), case is_deleted when 0 then 'live' else 'deleted' end"
        " from Folders order by folder_id");
}

std::string dumpFilesById(const std::string& dbPath)
{
    return queryCatalogue(dbPath,
        "select file_id, 'in', folder_id, quote(path), case is_deleted when 0 then 'live' else 'deleted' end"
        " from Files order by file_id");
}

std::string dumpRowsInFull(const std::string& dbPath, int firstId, long long start)
{
    const std::string first = " >= " + std::to_string(firstId) + " order by ";
    const auto flags = [](const std::string& usualCategory) {
        return " || iif(is_deleted, ' deleted', ' live') || iif(is_hidden, ' hidden', '') || iif(is_backup, '"
               " backup', '') || iif(is_system, ' system', '') || iif("
            + usualCategory + ", '', ' category ' || category)";
    };
    const std::string written = " || case when last_updated_time = 30 then '' when last_updated_time between "
        + std::to_string(start)
        + " and cast(strftime('%s', 'now') as int) then ' now' else ' at ' || last_updated_time end";
    return queryCatalogue(dbPath,
               "select 'folder ' || folder_id || ' in ' || parent_id || ' ' || quote(path) || ' ' || quote(name)"
               " || ' ' || modified_time || ' ' || created_time"
                   + flags("category = -1") + written + " from Folders where folder_id" + first + "folder_id")
        + queryCatalogue(dbPath,
            "select 'file ' || file_id || ' in ' || folder_id || ' ' || quote(path) || ' ' || quote(name)"
            " || ' ' || category || ' ' || size || ' ' || modified_time || ' ' || created_time"
                + flags("1") + written + " from Files where file_id" + first + "file_id");
}

std::string dumpFolderRow(const std::string& dbPath, int id)
{
    return queryCatalogue(dbPath,
        "select parent_id, path, name, category, created_time, modified_time, is_deleted, is_backup, is_hidden,"
        " is_system from Folders where folder_id = "
            + std::to_string(id));
}

std::string dumpFileRow(const std::string& dbPath, int id)
{
    return queryCatalogue(dbPath,
        "select folder_id, path, name, category, size, modified_time, created_time, is_deleted, is_backup, is_hidden,"
        " is_system from Files where file_id = "
            + std::to_string(id));
}

std::string dumpRowsById(const std::string& dbPath)
{
    const std::string marks = "||iif(is_deleted, ' deleted', '')||iif(last_updated_time = 1, '', ' written') from ";
    return queryCatalogue(dbPath,
               "select 'folder '||folder_id||' '''||name||''' in '||parent_id||' '||path||' '||modified_time" + marks
                   + "Folders order by folder_id")
        + queryCatalogue(dbPath,
            "select 'file '||file_id||' '''||name||''' in '||folder_id||' '||path||' '||category||' '||size||' '"
            "||modified_time"
                + marks + "Files order by file_id");
}

std::string dumpLiveRows(const std::string& dbPath)
{
    return queryCatalogue(dbPath,
               "select 'folder ['||f.path||'] ['||f.name||'] '"
               "||coalesce('in ['||p.path||']', case f.parent_id when -1 then 'root' else '?' end)"
               "||' '||f.category||' '||f.created_time||' '||f.modified_time||' '||f.is_hidden"
               " from Folders f left join Folders p on p.folder_id=f.parent_id and not p.is_deleted"
               " where not f.is_deleted order by f.path")
        + queryCatalogue(dbPath,
            "select 'file ['||f.path||'] ['||f.name||'] '||coalesce('in ['||p.path||']', '?')"
            "||' '||f.category||' '||f.size||' '||f.created_time||' '||f.modified_time||' '||f.is_hidden"
            " from Files f left join Folders p on p.folder_id=f.folder_id and not p.is_deleted"
            " where not f.is_deleted order by f.path");
}

std::string dumpDeletedRows(const std::string& dbPath)
{
    return queryCatalogue(
               dbPath, "select 'folder ['||path||'] ['||name||']' from Folders where is_deleted order by path")
        + queryCatalogue(dbPath, "select 'file ['||path||'] ['||name||']' from Files where is_deleted order by path");
}
