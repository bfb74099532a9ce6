// How a folder tree that was moved is followed: one call for the whole tree, one transaction for all its rows.
//
//     bench_moves VOLUME [--record FILE]
//     bench_moves --replay FILE CATALOGUE
//
// The first form walks VOLUME, moves its folder `library` to `archive` on disk, has the watcher route that one move,
// and checks every row. With --record it writes the SQL of the move's transaction to FILE, parameters filled in, and
// leaves the catalogue as it was before in FILE.db; the times then mean nothing. The second form runs such a file on
// such a catalogue, each statement prepared, stepped and finalized: the same statements with nothing around them.
#include "Usage.h"
#include "volume/VolumeManager.h"
#include "watch/VolumeWatcher.h"

#include <fcntl.h>
#include <malloc.h>
#include <sqlite3.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Commit {
    Clock::time_point time;
    int changes; ///< rows written by the connection so far
};

bool listening = false; ///< to what connections do
bool recording = false;
std::vector<Commit> commits;
int changesBefore = 0; ///< rows written until then
std::vector<std::string> recorded;
long statements = 0; ///< up to the first commit

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "bench_moves: %s\n", what.c_str());
    std::exit(1);
}

int onCommit(void* connection)
{
    const int changes = sqlite3_total_changes(static_cast<sqlite3*>(connection));
    if (listening)
        commits.push_back({ Clock::now(), changes });
    else
        changesBefore = changes;
    return 0;
}

int onStatement(unsigned, void*, void* statement, void*)
{
    if (!listening || !commits.empty())
        return 0;
    ++statements;
    if (recording) {
        char* text = sqlite3_expanded_sql(static_cast<sqlite3_stmt*>(statement));
        recorded.emplace_back(text);
        sqlite3_free(text);
    }
    return 0;
}

int listenTo(sqlite3* connection, const char**, const sqlite3_api_routines*)
{
    sqlite3_commit_hook(connection, onCommit, connection);
    sqlite3_trace_v2(connection, SQLITE_TRACE_STMT, onStatement, nullptr);
    return SQLITE_OK;
}

double secondsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

/// kB, of /proc/self/status.
long memory(const std::string& name)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, name.length() + 1, name + ":") == 0)
            return std::atol(line.c_str() + name.length() + 1);
    }
    fail("no " + name + " in /proc/self/status");
}

void forgetPeakMemory()
{
    malloc_trim(0); // what the first walk gave back does not hide what the move takes
    std::ofstream("/proc/self/clear_refs") << "5";
}

sqlite3* openCatalogue(const std::string& path)
{
    sqlite3* database = nullptr;
    if (sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK)
        fail("cannot open " + path);
    return database;
}

/// The rows of a query, a line each.
std::string query(const std::string& catalogue, const std::string& sql)
{
    sqlite3* database = openCatalogue(catalogue);
    std::string rows;
    const auto append = [](void* text, int, char** values, char**) {
        *static_cast<std::string*>(text) += std::string(values[0] == nullptr ? "NULL" : values[0]) + "\n";
        return 0;
    };
    if (sqlite3_exec(database, sql.c_str(), append, &rows, nullptr) != SQLITE_OK)
        fail(sqlite3_errmsg(database));
    sqlite3_close(database);
    return rows;
}

/// Every live row at and below the folder, with paths that begin there; its own name is left out.
std::string rowsBelow(const std::string& catalogue, const std::string& top)
{
    const auto below
        = [&top](const std::string& path) { return "substr(" + path + ", " + std::to_string(top.length() + 1) + ")"; };
    const std::string which
        = " where f.is_deleted=0 and (f.path='" + top + "' or f.path like '" + top + "/%') order by f.path";
    return query(catalogue,
               "select " + below("f.path") + "||'|'||case f.path when '" + top
                   + "' then '' else f.name end||'|'||coalesce(" + below("p.path")
                   + ",'?')||'|'||f.category||'|'||f.created_time||'|'||f.modified_time||'|'||f.is_hidden from Folders f "
                     "left join Folders p on p.folder_id=f.parent_id and p.is_deleted=0"
                   + which)
        + query(catalogue,
            "select " + below("f.path") + "||'|'||f.name||'|'||coalesce(" + below("p.path")
                + ",'?')||'|'||f.category||'|'||f.size||'|'||f.created_time||'|'||f.modified_time||'|'||f.is_hidden from "
                  "Files f left join Folders p on p.folder_id=f.folder_id and p.is_deleted=0"
                + which);
}

long countBelow(const std::string& catalogue, const std::string& table, const std::string& top, bool isDeleted)
{
    return std::stol(query(catalogue,
        "select count(*) from " + table + " where is_deleted=" + (isDeleted ? "1" : "0") + " and (path='" + top
            + "' or path like '" + top + "/%')"));
}

/// What the kernel tells of one half of a move, with room for the name.
class MoveEvent {
public:
    MoveEvent(int watch, uint32_t mask, const std::string& name)
        : bytes(sizeof(inotify_event) + name.length() + 1)
    {
        event()->wd = watch;
        event()->mask = mask | IN_ISDIR;
        event()->len = static_cast<uint32_t>(name.length() + 1);
        std::memcpy(event()->name, name.c_str(), name.length() + 1);
    }
    inotify_event* event() { return reinterpret_cast<inotify_event*>(bytes.data()); }

private:
    std::vector<char> bytes;
};

/// The catalogue writes three lines a file to standard output, which the daemon's users rarely keep.
void loseOutput()
{
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    close(null);
}

void writeRecord(const std::string& file)
{
    std::ofstream out(file, std::ios::binary);
    for (const std::string& text : recorded)
        out.write(text.c_str(), static_cast<std::streamsize>(text.length() + 1));
    if (!out.flush())
        fail("cannot write " + file);
}

void follow(std::string volume, const std::string& record)
{
    std::FILE* results = fdopen(dup(STDOUT_FILENO), "w");
    loseOutput();
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0); // as the daemon has it; too late once the next line was run
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(listenTo));

    std::string name = "bench";
    auto* watcher = VolumeWatcher::getInstance();
    const auto manager = std::make_unique<VolumeManager>();
    if (!manager->initialize(name, volume))
        fail("cannot open the catalogue of " + volume);
    watcher->addVolumeWatchListener(name, manager.get());
    manager->walk(volume, true);

    const std::string catalogue = volume + "/.quarrow/quarrow.db";
    const std::string before = rowsBelow(catalogue, "/library");
    const long files = countBelow(catalogue, "Files", "/library", false);
    const long folders = countBelow(catalogue, "Folders", "/library", false);
    const int watches = watcher->numWatches();
    if (!record.empty())
        std::filesystem::copy_file(
            catalogue, record + ".db", std::filesystem::copy_options::overwrite_existing); // complete after a walk

    if (std::rename((volume + "/library").c_str(), (volume + "/archive").c_str()) != 0)
        fail("cannot move " + volume + "/library");
    const int watch = watcher->addDirectoryToWatch(name, volume);
    MoveEvent from(watch, IN_MOVED_FROM, "library");
    MoveEvent to(watch, IN_MOVED_TO, "archive");
    forgetPeakMemory();
    const long memoryBefore = memory("VmRSS");
    recording = !record.empty();
    listening = true;
    const double processorStart = processorSeconds();
    const Clock::time_point start = Clock::now();
    watcher->handleMoveFolder(from.event(), to.event());
    const Clock::time_point end = Clock::now();
    const double processor = processorSeconds() - processorStart;
    listening = false;
    const long memoryPeak = memory("VmHWM");

    if (commits.empty())
        fail("nothing was committed");
    if (!record.empty())
        writeRecord(record);
    const bool rowsAreRight = rowsBelow(catalogue, "/archive") == before
        && countBelow(catalogue, "Files", "/library", false) == 0
        && countBelow(catalogue, "Folders", "/library", false) == 0
        && countBelow(catalogue, "Files", "/library", true) == files
        && countBelow(catalogue, "Folders", "/library", true) == folders && watcher->numWatches() == watches;
    // The walk behind the move has a transaction for each folder, and nothing to write in it.
    std::fprintf(results,
        "{\"files\": %ld, \"folders\": %ld, \"seconds\": %.6f, \"cpu_seconds\": %.6f, \"commit_seconds\": %.6f, "
        "\"statements\": %ld, \"rows_of_first_commit\": %d, \"rows_of_later_commits\": %d, \"rows_are_right\": %s, "
        "\"memory_before\": %ld, \"memory_peak\": %ld}\n",
        files, folders, secondsBetween(start, end), processor, secondsBetween(start, commits.front().time), statements,
        commits.front().changes - changesBefore, commits.back().changes - commits.front().changes,
        rowsAreRight ? "true" : "false", memoryBefore, memoryPeak);
    std::fclose(results);
    manager->destroy();
}

void replay(const std::string& record, const std::string& catalogue)
{
    std::ifstream in(record, std::ios::binary);
    std::vector<std::string> texts;
    for (std::string text; std::getline(in, text, '\0');)
        texts.push_back(text);
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    sqlite3* database = openCatalogue(catalogue);
    sqlite3_exec(database, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA wal_autocheckpoint=4000",
        nullptr, nullptr, nullptr);

    const double processorStart = processorSeconds();
    const Clock::time_point start = Clock::now();
    for (const std::string& text : texts) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare(database, text.c_str(), -1, &statement, nullptr) != SQLITE_OK)
            fail(text + ": " + sqlite3_errmsg(database));
        int status;
        while ((status = sqlite3_step(statement)) == SQLITE_ROW) { }
        if (status != SQLITE_DONE)
            fail(text + ": " + sqlite3_errmsg(database));
        sqlite3_finalize(statement);
    }
    const Clock::time_point end = Clock::now();
    std::printf("{\"seconds\": %.6f, \"cpu_seconds\": %.6f, \"statements\": %zu}\n", secondsBetween(start, end),
        processorSeconds() - processorStart, texts.size());
    sqlite3_close(database);
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() == 3 && words[0] == "--replay")
        replay(words[1], words[2]);
    else if (words.size() == 1)
        follow(words[0], "");
    else if (words.size() == 3 && words[1] == "--record")
        follow(words[0], words[2]);
    else
        fail("usage: bench_moves VOLUME [--record FILE] | --replay FILE CATALOGUE");
    return 0;
}
