#pragma once

#include "support/CatalogueReader.h"
#include "support/TemporaryFolder.h"

#include <string>

/// A catalogue with the daemon's tables and indexes, in a folder of its own.
class SearchedCatalogue {
public:
    SearchedCatalogue()
        : file(folder.writeFile("quarrow.db"))
    {
        change(
            "create table Folders(folder_id integer primary key AUTOINCREMENT, parent_id integer not null, path text "
            "not null , name text not null, category int default(-1) not null, created_time int not null, "
            "modified_time int not null, is_deleted boolean not null, is_backup boolean default(0) not null, "
            "is_hidden boolean default(0) not null, is_system boolean default(0) not null, last_updated_time int not "
            "null);"
            "create table Files(file_id integer primary key AUTOINCREMENT, folder_id integer not null, path text not "
            "null, name text not null, category int not null, size int not null, modified_time int not null, "
            "created_time int not null, is_deleted boolean not null, is_backup boolean default(0) not null, is_hidden "
            "boolean default(0) not null, is_system boolean default(0) not null, last_updated_time int not null, "
            "FOREIGN KEY(folder_id) REFERENCES Folders(folder_id) ON DELETE CASCADE);"
            "create index Files_path on Files(path);"
            "create index Files_last_updated_time on Files(last_updated_time);"
            "create index Files_folder_id on Files(folder_id);"
            "create index Files_name on Files(name);"
            "create index Files_path_pame on Files(path, name);"
            "create index Folders_path on Folders(path);"
            "create index Folders_last_updated_time on Folders(last_updated_time);"
            "create index Folders_parent_id on Folders(parent_id);"
            "create index Folders_name on Folders(name)");
    }

    const std::string& path() const { return file; }
    void change(const std::string& statements) const { changeCatalogue(file, statements); }

    /// Adds a file; `values` are category, size, modified_time, is_deleted and last_updated_time.
    void addFile(const std::string& path, const std::string& values = "2, 100, 1000, 0, 2000") const
    {
        change("insert into Files(folder_id, created_time, path, name, category, size, modified_time, is_deleted, "
               "last_updated_time) values (1, 1, '"
            + path + "', '" + path.substr(path.rfind('/') + 1) + "', " + values + ")");
    }
    /// Adds a folder; `values` are modified_time, is_deleted and last_updated_time.
    void addFolder(const std::string& path, const std::string& values = "1000, 0, 2000") const
    {
        change("insert into Folders(parent_id, created_time, path, name, modified_time, is_deleted, last_updated_time) "
               "values (1, 1, '"
            + path + "', '" + path.substr(path.rfind('/') + 1) + "', " + values + ")");
    }

private:
    TemporaryFolder folder;
    std::string file;
};
