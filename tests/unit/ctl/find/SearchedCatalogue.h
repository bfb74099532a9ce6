#pragma once

#include "../SampleCatalogue.h"

#include "support/CatalogueReader.h"
#include "support/TemporaryFolder.h"

#include <string>

/// A catalogue with the daemon's tables and indexes, in a folder of its own.
class SearchedCatalogue {
public:
    SearchedCatalogue()
        : file(folder.writeFile("quarrow.db"))
    {
        change(catalogueSchema);
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
