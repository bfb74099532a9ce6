#include "db/CatalogueTest.h"

#include "db/DBOperationException.h"
#include "support/CatalogueReader.h"
#include "support/SyslogCapture.h"

#include <pthread.h>
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

void CatalogueTest::insertFolderRow(const std::string& path, int parentId) const { change(folderRow(path, parentId)); }

void CatalogueTest::insertDeepTree(int parentId, const std::string& prefix) const
{
    change("with recursive level(n) as (select " + std::to_string(parentId + 1)
        + " union all select n+1 from level where n < 10000)"
          " insert into Folders(folder_id, parent_id, path, name, created_time, modified_time, is_deleted,"
          " last_updated_time) select n, n - 1, '"
        + prefix + "' || n, n, 0, 0, 0, 0 from level");
}

std::string CatalogueTest::countSchema() const
{
    return query("select count(*) from sqlite_master where name not like 'sqlite_%'");
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

long long secondsNow()
{
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

std::string folderRow(const std::string& path, int parentId)
{
    return "insert into Folders(parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)"
           " values("
        + std::to_string(parentId) + ", '" + path + "', '" + path.substr(path.rfind('/') + 1) + "', 20, 10, 0, 30)";
}

void runOnTheStackOfAWalk(const std::function<void()>& call)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 524288);
    pthread_t thread;
    const auto run = [](void* called) -> void* {
        (*static_cast<const std::function<void()>*>(called))();
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&call)));
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
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
