#include "SampleCatalogue.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <utility>

const char* const catalogueSchema
    = "create table Folders(folder_id integer primary key AUTOINCREMENT, parent_id integer not null, path text not null, "
      "name text not null, category int default(-1) not null, created_time int not null, modified_time int not null, "
      "is_deleted boolean not null, is_backup boolean default(0) not null, is_hidden boolean default(0) not null, "
      "is_system boolean default(0) not null, last_updated_time int not null);"
      "create table Files(file_id integer primary key AUTOINCREMENT, folder_id integer not null, path text not null, "
      "name text not null, category int not null, size int not null, modified_time int not null, created_time int not "
      "null, is_deleted boolean not null, is_backup boolean default(0) not null, is_hidden boolean default(0) not null, "
      "is_system boolean default(0) not null, last_updated_time int not null);"
      "create index Files_path on Files(path);"
      "create index Files_last_updated_time on Files(last_updated_time);"
      "create index Files_folder_id on Files(folder_id);"
      "create index Files_name on Files(name);"
      "create index Files_path_pame on Files(path, name);"
      "create index Folders_path on Folders(path);"
      "create index Folders_last_updated_time on Folders(last_updated_time);"
      "create index Folders_parent_id on Folders(parent_id);"
      "create index Folders_name on Folders(name);";

SampleCatalogue::SampleCatalogue()
{
    folder.makeFolder(".quarrow");
    EXPECT_EQ(SQLITE_OK, sqlite3_open(path().c_str(), &writer));
    run(std::string("PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0;") + catalogueSchema);
}

SampleCatalogue::~SampleCatalogue() { sqlite3_close(writer); }

void SampleCatalogue::run(const std::string& sql) const
{
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(writer, sql.c_str(), nullptr, nullptr, nullptr)) << sqlite3_errmsg(writer);
}

void SampleCatalogue::stopWriter()
{
    run("PRAGMA journal_mode=DELETE");
    sqlite3_close(std::exchange(writer, nullptr));
}

void SampleCatalogue::killWriter()
{
    // What a kill leaves is the files without the locks of whoever wrote them: copies, in the place of the files.
    for (const char* suffix : { "", "-wal", "-shm" })
        folder.writeFile(std::string("copy") + suffix, folder.readFile(std::string(".quarrow/quarrow.db") + suffix));
    sqlite3_close(std::exchange(writer, nullptr));
    for (const char* suffix : { "", "-wal", "-shm" })
        folder.writeFile(std::string(".quarrow/quarrow.db") + suffix, folder.readFile(std::string("copy") + suffix));
}
