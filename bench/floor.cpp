// The floor under a full walk: the system calls and SQL statements that cataloguing a tree takes, with nothing around
// them. No watch registry, no locks, no classification, no exclude paths, no recovery: whatever goes wrong ends the
// program. The daemon's walk is measured against this.
//
//     bench_floor VOLUME [--prepared | --per-folder] [--log] [--pragma TEXT]...
//
// Each statement is prepared and finalized every time, or, with --prepared, prepared once for the whole walk: the least
// that these statements can take. With --per-folder they live as long as the transaction of one folder, which is how
// the daemon keeps them: the least that it can take.
//
// The catalogue is VOLUME/.quarrow/quarrow.db, as the daemon has it, so that both meet the same entries on disk. A
// first run makes it (the first walk), a second run over the same catalogue is the walk of an unchanged tree.
#include "Usage.h"

#include <dirent.h>
#include <sqlite3.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <queue>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

struct Counts {
    long folders = 0;
    long files = 0;
    long statements = 0;
    long inserted = 0;
    long updated = 0;
    long deleted = 0;
};

sqlite3* database = nullptr;
Counts counts;

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "bench_floor: %s: %s\n", what.c_str(), sqlite3_errmsg(database));
    std::exit(1);
}

bool staysPrepared = false;
bool endsWithFolder = false;
std::unordered_map<const char*, sqlite3_stmt*> prepared; ///< by the address of the text, which is a literal

void finalizePrepared()
{
    for (const auto& [text, statement] : prepared)
        sqlite3_finalize(statement);
    prepared.clear();
}

/// One statement from prepare to finalize, or from one use to the next. Texts are borrowed, so they must live until the
/// last step.
class Statement {
public:
    explicit Statement(const char* text)
    {
        ++counts.statements;
        if (staysPrepared && (handle = prepared[text]) != nullptr)
            return;
        if (sqlite3_prepare(database, text, -1, &handle, nullptr) != SQLITE_OK)
            fail(text);
        if (staysPrepared)
            prepared[text] = handle;
    }
    ~Statement()
    {
        if (staysPrepared)
            sqlite3_reset(handle);
        else
            sqlite3_finalize(handle);
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int value)
    {
        sqlite3_bind_int(handle, ++bound, value);
        return *this;
    }
    Statement& bindLong(long long value)
    {
        sqlite3_bind_int64(handle, ++bound, value);
        return *this;
    }
    Statement& bind(const std::string& value)
    {
        sqlite3_bind_text(handle, ++bound, value.c_str(), -1, SQLITE_STATIC);
        return *this;
    }
    bool nextRow()
    {
        const int status = sqlite3_step(handle);
        if (status != SQLITE_ROW && status != SQLITE_DONE)
            fail("step");
        return status == SQLITE_ROW;
    }
    void run()
    {
        while (nextRow()) { }
    }
    int number(int column) { return sqlite3_column_int(handle, column); }
    std::string text(int column) { return reinterpret_cast<const char*>(sqlite3_column_text(handle, column)); }

private:
    sqlite3_stmt* handle = nullptr;
    int bound = 0;
};

struct Folder {
    int id = 0;
    int parentId = -1;
    int modified = 0;
};

struct File {
    int id = 0;
    int size = 0; ///< in 32 bits, as the daemon's look-up reads it: a file of 2 GiB or more differs on every walk
    int modified = 0;
};

int isHidden(const std::string& path) { return path.find("/.") != std::string::npos ? 1 : 0; }

// ---- folders

bool folderExists(const std::string& path, Folder& folder)
{
    Statement stmt(
        "select folder_id, parent_id, path, is_deleted, last_updated_time, modified_time, created_time, name "
        "from folders where path=? and is_deleted=0");
    stmt.bind(path);
    bool found = false;
    while (stmt.nextRow()) {
        folder = { stmt.number(0), stmt.number(1), stmt.number(5) };
        found = true;
    }
    return found;
}

void insertIndividualFolder(const std::string& path, int parentId, const struct stat64& status)
{
    {
        Statement rowExists("select folder_id, parent_id, path, is_deleted, last_updated_time, modified_time, "
                            "created_time, name from folders where path=?");
        if (rowExists.bind(path).nextRow())
            fail("a deleted folder came back; the floor is for a tree that stays as it is");
    }
    const std::string name = path.substr(path.rfind('/') + 1);
    Statement stmt("insert into folders( parent_id  , path  , name  , is_deleted  , modified_time  , "
                   "last_updated_time  , created_time  , is_hidden ) values(?,?,?,?,?,strftime('%s','now'),?,?)");
    stmt.bind(parentId).bind(path).bind(name).bind(0).bind(static_cast<int>(status.st_mtime));
    stmt.bind(static_cast<int>(status.st_ctime)).bind(isHidden(path)).run();
    ++counts.inserted;
}

/// The upward climb as the daemon makes it: the parent's path is taken off the stack when the parent is looked up, and
/// the folders above are visited up to one without a parent. The walk goes top-down, so every folder above is there.
void insertFolder(const std::string& path, bool isRoot, const struct stat64& status)
{
    Folder folder;
    if (folderExists(path, folder))
        return;
    if (isRoot) {
        insertIndividualFolder(path, -1, status);
        return;
    }
    std::vector<std::string> above;
    for (std::size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1))
        above.push_back(path.substr(0, end));
    above.push_back(path);

    while (!above.empty()) {
        const std::string current = std::move(above.back());
        above.pop_back();
        if (folderExists(current, folder)) {
            if (folder.parentId == -1)
                return;
            continue;
        }
        std::string parentPath; // a folder at the top stands below the volume's own row, whose path is empty
        if (!above.empty()) {
            parentPath = std::move(above.back());
            above.pop_back();
        }
        Folder parent;
        if (!folderExists(parentPath, parent))
            fail("no row above " + current);
        insertIndividualFolder(current, parent.id, status);
    }
}

bool checkFolder(const std::string& fullPath, const std::string& path, bool isRoot)
{
    struct stat64 status;
    if (stat64(fullPath.c_str(), &status) != 0 || (status.st_mode & S_IFDIR) == 0)
        return false;
    Folder folder;
    if (!folderExists(path, folder)) {
        insertFolder(path, isRoot, status);
    } else if (folder.modified != static_cast<int>(status.st_mtime)) {
        Statement stmt("update folders set last_updated_time=strftime('%s','now'), modified_time=?, created_time=? "
                       "where folder_id = ?");
        stmt.bind(static_cast<int>(status.st_mtime)).bind(static_cast<int>(status.st_ctime)).bind(folder.id).run();
        ++counts.updated;
    }
    return true;
}

// ---- files

bool fileExists(const std::string& path, const std::string& name, File& file)
{
    Statement stmt("select file_id , folder_id , path , name , size , category , last_updated_time , modified_time , "
                   "created_time from  files  where  path=?  and name=? and is_deleted=0");
    stmt.bind(path).bind(name);
    bool found = false;
    while (stmt.nextRow()) {
        file = { stmt.number(0), stmt.number(4), stmt.number(7) };
        found = true;
    }
    return found;
}

void insertFile(const std::string& path, const std::string& name, const struct stat64& status)
{
    File file;
    if (fileExists(path, name, file))
        return;
    Folder folder;
    if (!folderExists(path.substr(0, path.rfind('/')), folder))
        fail("no row for the folder of " + path);
    {
        Statement rowExists("select file_id , folder_id , path , name , size , category , last_updated_time , "
                            "modified_time , created_time from  files  where  path=?  and name=?");
        if (rowExists.bind(path).bind(name).nextRow())
            fail("a deleted file came back; the floor is for a tree that stays as it is");
    }
    Statement stmt("insert into files( folder_id  , name  , path  , size  , last_updated_time  , is_deleted  , "
                   "modified_time , created_time , category , is_hidden) "
                   "values(?,?,?,?,strftime('%s','now'), 0, ?,?,?,?)");
    stmt.bind(folder.id).bind(name).bind(path).bindLong(status.st_size).bind(static_cast<int>(status.st_mtime));
    stmt.bind(static_cast<int>(status.st_ctime)).bind(4).bind(isHidden(path)).run();
    ++counts.inserted;
}

void checkFile(const std::string& fullPath, const std::string& path, const std::string& name)
{
    struct stat64 status;
    if (stat64(fullPath.c_str(), &status) != 0)
        return;
    File file;
    if (!fileExists(path, name, file)) {
        insertFile(path, name, status);
    } else if (file.modified != static_cast<int>(status.st_mtime) || file.size != status.st_size) {
        Statement stmt("update files set name=?, category=?, size=?, last_updated_time=strftime('%s','now'), "
                       "modified_time=?, created_time=? where file_id = ?");
        stmt.bind(name).bind(4).bindLong(status.st_size).bind(static_cast<int>(status.st_mtime));
        stmt.bind(static_cast<int>(status.st_ctime)).bind(file.id).run();
        ++counts.updated;
    }
}

void deleteFile(const std::string& path, const std::string& name)
{
    File file;
    if (!fileExists(path, name, file))
        return;
    Statement("update files set is_deleted=1, last_updated_time=strftime('%s','now') where file_id = ?")
        .bind(file.id)
        .run();
    ++counts.deleted;
}

// ---- the walk

/// Lists the folder in the catalogue, watches it, reads it and merges the two lists. New folders go on the queue.
void reconcile(const std::string& fullPath, const std::string& path, int watcher, std::queue<std::string>& queue)
{
    Folder folder;
    folderExists(path, folder);
    std::vector<std::string> rowFiles;
    {
        Statement stmt("select path , name , modified_time , created_time from  files  where  folder_id=?  and "
                       "is_deleted=0 ");
        stmt.bind(folder.id);
        while (stmt.nextRow())
            rowFiles.push_back(stmt.text(1));
    }
    std::vector<std::string> rowFolders;
    {
        Statement stmt("select folder_id, parent_id, path, is_deleted, last_updated_time, modified_time, created_time, "
                       "name from folders where parent_id=? and is_deleted=0");
        stmt.bind(folder.id);
        while (stmt.nextRow())
            rowFolders.push_back(stmt.text(2));
    }

    inotify_add_watch(
        watcher, fullPath.c_str(), IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE);

    DIR* directory = opendir(fullPath.c_str());
    if (directory == nullptr)
        return;
    std::vector<std::string> diskFiles;
    std::vector<std::string> diskFolders;
    while (const dirent64* entry = readdir64(directory)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        if (entry->d_type == DT_DIR) {
            queue.push(fullPath + "/" + entry->d_name);
            folderExists(path, folder); // once more for each folder below, as the daemon does
            diskFolders.push_back(path + "/" + entry->d_name);
        } else if (entry->d_type == DT_REG) {
            diskFiles.push_back(entry->d_name);
            ++counts.files;
        }
    }
    closedir(directory);

    for (auto* list : { &rowFiles, &rowFolders, &diskFiles, &diskFolders })
        std::sort(list->begin(), list->end());

    const std::string inFolder = path + "/";
    const std::string onDisk = fullPath + "/";
    auto row = rowFiles.begin();
    for (const std::string& name : diskFiles) {
        for (; row != rowFiles.end() && *row < name; ++row)
            deleteFile(inFolder + *row, *row);
        if (row != rowFiles.end() && *row == name)
            ++row;
        checkFile(onDisk + name, inFolder + name, name);
    }
    for (; row != rowFiles.end(); ++row)
        deleteFile(inFolder + *row, *row);
    if (!std::includes(diskFolders.begin(), diskFolders.end(), rowFolders.begin(), rowFolders.end()))
        fail("a catalogued folder is gone; the floor is for a tree that stays as it is");
}

void walk(const std::string& volume, int watcher, bool log)
{
    std::queue<std::string> queue;
    queue.push(volume);
    for (; !queue.empty(); queue.pop()) {
        const std::string fullPath = queue.front();
        const std::string path = fullPath.substr(volume.size());
        ++counts.folders;
        Statement("BEGIN").run();
        if (checkFolder(fullPath, path, fullPath == volume))
            reconcile(fullPath, path, watcher, queue);
        if (endsWithFolder)
            finalizePrepared();
        Statement("COMMIT").run();
        if (endsWithFolder)
            finalizePrepared();
        if (log) {
            syslog(LOG_LOCAL5 | LOG_INFO, "For folder %s", fullPath.c_str());
            syslog(LOG_LOCAL5 | LOG_INFO, "Add file count = %d, Delete file count = %d", 0, 0);
            syslog(LOG_LOCAL5 | LOG_INFO, "Add folder count = %d, Delete folder count = %d", 0, 0);
        }
    }
}

void execute(const char* text)
{
    if (sqlite3_exec(database, text, nullptr, nullptr, nullptr) != SQLITE_OK)
        fail(text);
}

void openCatalogue(const std::string& volume)
{
    mkdir((volume + "/.quarrow").c_str(), 0755);
    const std::string file = volume + "/.quarrow/quarrow.db";
    const bool existed = access(file.c_str(), F_OK) == 0;
    if (sqlite3_open(file.c_str(), &database) != SQLITE_OK)
        fail("open " + file);
    execute("PRAGMA journal_mode=WAL");
    execute("PRAGMA synchronous=NORMAL");
    if (existed)
        return;
    execute(
        "create table Folders(folder_id integer primary key AUTOINCREMENT, parent_id integer not null, path text not "
        "null , name text not null, category int default(-1) not null, created_time int not null, modified_time int "
        "not null, is_deleted boolean not null, is_backup boolean default(0) not null, is_hidden boolean default(0) "
        "not null, is_system boolean default(0) not null, last_updated_time int not null)");
    execute(
        "create table Files(file_id integer primary key AUTOINCREMENT, folder_id integer not null, path text not null, "
        "name text not null, category int not null, size int not null, modified_time int not null, created_time int "
        "not null, is_deleted boolean not null, is_backup boolean default(0) not null, is_hidden boolean default(0) "
        "not null, is_system boolean default(0) not null, last_updated_time int not null, FOREIGN KEY(folder_id) "
        "REFERENCES Folders(folder_id) ON DELETE CASCADE) ");
    for (const char* text :
        { "create index Files_path on Files(path)", "create index Files_last_updated_time on Files(last_updated_time)",
            "create index Files_folder_id on Files(folder_id)", "create index Files_name on Files(name)",
            "create index if not exists Files_path_pame on Files(path, name)",
            "create index Folders_path on Folders(path)",
            "create index Folders_last_updated_time on Folders(last_updated_time)",
            "create index Folders_parent_id on Folders(parent_id)", "create index Folders_name on Folders(name)" })
        execute(text);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench_floor VOLUME [--prepared | --per-folder] [--log] [--pragma TEXT]...\n");
        return 2;
    }
    const std::string volume = argv[1];
    bool log = false;
    openCatalogue(volume);
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--log") == 0)
            log = true;
        else if (std::strcmp(argv[i], "--prepared") == 0)
            staysPrepared = true;
        else if (std::strcmp(argv[i], "--per-folder") == 0)
            staysPrepared = endsWithFolder = true;
        else if (std::strcmp(argv[i], "--pragma") == 0 && i + 1 < argc)
            execute((std::string("PRAGMA ") + argv[++i]).c_str());
    }
    const int watcher = inotify_init();

    const double processorStart = processorSeconds();
    const auto start = std::chrono::steady_clock::now();
    walk(volume, watcher, log);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    const double processor = processorSeconds() - processorStart;

    std::printf("{\"seconds\": %.6f, \"cpu_seconds\": %.6f, \"folders\": %ld, \"files\": %ld, \"statements\": %ld, "
                "\"inserted\": %ld, \"updated\": %ld, \"deleted\": %ld}\n",
        elapsed.count(), processor, counts.folders, counts.files, counts.statements, counts.inserted, counts.updated,
        counts.deleted);
    finalizePrepared();
    sqlite3_close(database);
    close(watcher);
    return 0;
}
