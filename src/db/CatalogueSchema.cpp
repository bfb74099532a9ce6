#include "db/CatalogueSchema.h"

#include "db/DBOperationException.h"

#include <sqlite3.h>
#include <syslog.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <new>
#include <set>

namespace {

/// Texts, order and names stay as they are, because programs that read catalogues rely on them.
const char* const schemaStatements[] = {
    "create table Folders(folder_id integer primary key AUTOINCREMENT, parent_id integer not null, path text not null , name text not null, category int default(-1) not null, created_time int not null, modified_time int not null, is_deleted boolean not null, is_backup boolean default(0) not null, is_hidden boolean default(0) not null, is_system boolean default(0) not null, last_updated_time int not null)",
    // The blank at the end stays: every catalogue has it in the text that sqlite_master keeps.
    "create table Files(file_id integer primary key AUTOINCREMENT, folder_id integer not null, path text not null, name text not null, category int not null, size int not null, modified_time int not null, created_time int not null, is_deleted boolean not null, is_backup boolean default(0) not null, is_hidden boolean default(0) not null, is_system boolean default(0) not null, last_updated_time int not null, FOREIGN KEY(folder_id) REFERENCES Folders(folder_id) ON DELETE CASCADE) ",
    "create index Files_path on Files(path)",
    "create index Files_last_updated_time on Files(last_updated_time)",
    "create index Files_folder_id on Files(folder_id)",
    "create index Files_name on Files(name)",
    "create index if not exists Files_path_pame on Files(path, name)", // "pame" on purpose: every catalogue has this
                                                                       // name
    "create index Folders_path on Folders(path)",
    "create index Folders_last_updated_time on Folders(last_updated_time)",
    "create index Folders_parent_id on Folders(parent_id)",
    "create index Folders_name on Folders(name)",
};

constexpr int stepsToReadSchema = 2000; // virtual machine steps, ten times what a catalogue needs

/// Adds the texts of the schema, as SQLite keeps them. Returns an SQLite status.
int readSchemaTexts(sqlite3* schema, std::set<std::string>& texts)
{
    return sqlite3_exec(
        schema, "select sql from sqlite_master where sql is not null",
        [](void* result, int, char** text, char**) {
            try {
                static_cast<std::set<std::string>*>(result)->insert(text[0]);
                return 0;
            } catch (const std::bad_alloc&) {
                return 1;
            }
        },
        &texts, nullptr);
}

/// Owns a database in memory, where no other program sees it.
class DatabaseInMemory {
public:
    DatabaseInMemory() { status = sqlite3_open(":memory:", &handle); }
    ~DatabaseInMemory() { sqlite3_close(handle); } // SQLite hands out a handle also when it fails
    DatabaseInMemory(const DatabaseInMemory&) = delete;
    DatabaseInMemory& operator=(const DatabaseInMemory&) = delete;

    bool isOpen() const { return status == SQLITE_OK; }
    sqlite3* get() const { return handle; }

private:
    sqlite3* handle = nullptr;
    int status;
};

/// Returns the SQLite status of the last statement alone.
int runSchemaStatements(sqlite3* database)
{
    int rc = SQLITE_OK;
    for (const char* statement : schemaStatements)
        rc = sqlite3_exec(database, statement, nullptr, nullptr, nullptr);
    return rc;
}

bool isComplete(sqlite3* database)
{
    int objects = 0;
    sqlite3_exec(
        database, "select 1 from sqlite_master where name not like 'sqlite_%'",
        [](void* count, int, char**, char**) { return ++*static_cast<int*>(count), 0; }, &objects, nullptr);
    return objects == static_cast<int>(std::size(schemaStatements));
}

} // namespace

void makeCatalogueSchema(sqlite3* database)
{
    syslog(LOG_LOCAL5 | LOG_INFO, "Generating schema");
    const int rc = runSchemaStatements(database);
    // Only the last statement counts, on purpose: tables that exist already are no reason to refuse a catalogue.
    if (rc != SQLITE_OK) {
        syslog(LOG_LOCAL5 | LOG_ERR, "createDBStructure() failed, handleStatus: %d\n", rc);
        throw DBOperationException();
    }
}

std::string emptyCatalogue()
{
    const DatabaseInMemory made;
    if (!made.isOpen())
        return {};
    makeCatalogueSchema(made.get());
    if (!isComplete(made.get()))
        return {}; // a statement before the last one has failed
    sqlite3_int64 size = 0;
    const std::unique_ptr<unsigned char, void (*)(void*)> bytes(
        sqlite3_serialize(made.get(), "main", &size, 0), sqlite3_free);
    return bytes == nullptr ? std::string()
                            : std::string(reinterpret_cast<const char*>(bytes.get()), static_cast<std::size_t>(size));
}

/// Compares the texts alone, because they are all that SQLite parses.
int lookForForeignSql(sqlite3* database)
{
    // Another user's schema may have any size, so reading it is limited.
    sqlite3_progress_handler(
        database, stepsToReadSchema, [](void*) { return 1; }, nullptr);
    std::set<std::string> texts;
    const int rc = readSchemaTexts(database, texts);
    if (rc != SQLITE_OK)
        return rc == SQLITE_INTERRUPT ? SQLITE_AUTH : rc;

    std::set<std::string> ours;
    const DatabaseInMemory made;
    runSchemaStatements(made.get());
    readSchemaTexts(made.get(), ours);
    return std::includes(ours.begin(), ours.end(), texts.begin(), texts.end()) ? SQLITE_OK : SQLITE_AUTH;
}
