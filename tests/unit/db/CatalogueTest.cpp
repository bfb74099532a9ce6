#include "db/CatalogueTest.h"

#include "db/DBOperationException.h"
#include "support/CatalogueReader.h"
#include "support/SyslogCapture.h"

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <set>

namespace fs = std::filesystem;

CatalogueTest::CatalogueTest()
    : catalogueFolder(volume.path(".quarrow"))
    , dbPath(volume.path(".quarrow/quarrow.db"))
{
    umask(022);
    clearLog();
}

void CatalogueTest::open()
{
    close();
    db = std::make_unique<VolumeDBManager>();
    db->open(dbPath.c_str());
}

void CatalogueTest::openNew()
{
    open();
    clearLog();
}

std::string CatalogueTest::query(const std::string& sql) const { return queryCatalogue(dbPath, sql); }

void CatalogueTest::change(const std::string& sql) const { changeCatalogue(dbPath, sql); }

std::string CatalogueTest::dumpFolders() const
{
    return query("select folder_id, 'in', parent_id, quote(path), case is_deleted when 0 then 'live' else 'deleted' end"
                 " from Folders order by folder_id");
}

std::string CatalogueTest::dumpFiles() const
{
    return query("select file_id, 'in', folder_id, quote(path), case is_deleted when 0 then 'live' else 'deleted' end"
                 " from Files order by file_id");
}

std::string CatalogueTest::dumpSchema() const
{
    return query("select name || ': ' || sql from sqlite_master where name not like 'sqlite_%' order by rowid");
}

std::string CatalogueTest::dumpCatalogueFolder() const
{
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(catalogueFolder))
        names.insert(entry.path().filename().string());
    std::string lines;
    for (const std::string& name : names)
        lines += name + "\n";
    return lines;
}

void CatalogueTest::insertFolderRow(const std::string& path, int parentId) const
{
    change("insert into Folders(parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)"
           " values("
        + std::to_string(parentId) + ", '" + path + "', '" + path.substr(path.rfind('/') + 1) + "', 20, 10, 0, 30)");
}

void CatalogueTest::insertFileRow(const std::string& path, int folderId) const
{
    change("insert into Files(folder_id, path, name, category, size, created_time, modified_time, is_deleted,"
           " last_updated_time) values("
        + std::to_string(folderId) + ", '" + path + "', '" + path.substr(path.rfind('/') + 1)
        + "', 2, 5, 20, 10, 0, 30)");
}

DBFolder folderAt(const std::string& path)
{
    DBFolder folder;
    folder.resetFolder();
    folder.setPath(path);
    return folder;
}

DBFolder folderAt(const std::string& path, int modifiedTime, int createdTime)
{
    DBFolder folder = folderAt(path);
    folder.setModified_time(modifiedTime);
    folder.setCreated_time(createdTime);
    return folder;
}

DBFile fileAt(const std::string& path)
{
    DBFile file;
    file.reset();
    file.setPath(path);
    file.setName(path.substr(path.rfind('/') + 1));
    return file;
}

DBFile fileAt(const std::string& path, int category, long long size, int modifiedTime, int createdTime)
{
    DBFile file = fileAt(path);
    file.setCategory(category);
    file.setSize(size);
    file.setModified_time(modifiedTime);
    file.setCreated_time(createdTime);
    return file;
}

std::string describe(const DBFolder& f)
{
    return std::to_string(f.getFolder_id()) + " in " + std::to_string(f.getParent_id()) + " '" + f.getPath() + "' '"
        + f.getName() + "' modified " + std::to_string(f.getModified_time()) + " created "
        + std::to_string(f.getCreated_time()) + (f.getIs_deleted() ? " deleted" : " live");
}

std::string describe(const DBFile& f)
{
    return std::to_string(f.getFile_id()) + " in " + std::to_string(f.getFolder_id()) + " '" + f.getPath() + "' '"
        + f.getName() + "' category " + std::to_string(f.getCategory()) + " size " + std::to_string(f.getSize())
        + " modified " + std::to_string(f.getModified_time()) + " created " + std::to_string(f.getCreated_time());
}

long secondsNow()
{
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

bool throwsOperationException(const std::function<void()>& call)
{
    try {
        call();
    } catch (const DBOperationException&) {
        return true;
    }
    return false;
}
