#include "ctl/changes/ChangedRows.h"

#include "ctl/Catalogue.h"
#include "ctl/Fnv.h"
#include "ctl/Query.h"
#include "ctl/changes/VolumePosition.h"

namespace {

constexpr long long mostSortedFolders = 20000; // some MiB in SQLite's sorter

const std::string selectFolders = std::string("select ") + RowLine::folderColumns() + " from Folders where ";
const std::string selectFiles = std::string("select ") + RowLine::fileColumns() + " from Files where ";

} // namespace

ChangedRows::ChangedRows(const Catalogue& opened, const std::string& volumeName)
    : catalogue(opened)
    , lines(volumeName)
{
}

void ChangedRows::all(const Sink& sink)
{
    // The index on the path gives the folders' order, and files come as they lie in the table: nothing is sorted.
    files("is_deleted <> 0 and +last_updated_time >= ? order by file_id", noTime, sink);
    folders("is_deleted <> 0 and +last_updated_time >= ? order by path desc", noTime, sink);
    folders("is_deleted = 0 and +last_updated_time >= ? order by path", noTime, sink);
    files("is_deleted = 0 and +last_updated_time >= ? order by file_id", noTime, sink);
}

void ChangedRows::since(long long time, const Sink& sink)
{
    // A plus sign keeps SQLite from using the index on that column: few folders are found by their time and sorted in
    // memory, many are picked out of the whole table in the order of the index on the path.
    const bool areMany = areManyFolders(time);
    const std::string condition = areMany ? " and +last_updated_time >= ?" : " and last_updated_time >= ?";
    const std::string order = areMany ? " order by path" : " order by +path";
    files("is_deleted <> 0 and last_updated_time >= ? order by last_updated_time, file_id", time, sink);
    folders("is_deleted <> 0" + condition + order + " desc", time, sink);
    folders("is_deleted = 0" + condition + order, time, sink);
    files("is_deleted = 0 and last_updated_time >= ? order by last_updated_time, file_id", time, sink);
}

std::uint64_t ChangedRows::digest(long long first, long long last)
{
    std::uint64_t sum = 0;
    Query folderRows(catalogue, selectFolders + "last_updated_time between ? and ?");
    folderRows.bind(first).bind(last);
    while (folderRows.next())
        sum += fnv(lines.folder(folderRows));
    Query fileRows(catalogue, selectFiles + "last_updated_time between ? and ?");
    fileRows.bind(first).bind(last);
    while (fileRows.next())
        sum += fnv(lines.file(fileRows));
    return sum;
}

void ChangedRows::folders(const std::string& text, long long time, const Sink& sink)
{
    Query rows(catalogue, selectFolders + text);
    rows.bind(time);
    while (rows.next())
        sink(lines.folder(rows));
}

void ChangedRows::files(const std::string& text, long long time, const Sink& sink)
{
    Query rows(catalogue, selectFiles + text);
    rows.bind(time);
    while (rows.next())
        sink(lines.file(rows));
}

bool ChangedRows::areManyFolders(long long time) const
{
    Query count(catalogue,
        "select count(*) from (select 1 from Folders where last_updated_time >= ? limit "
            + std::to_string(mostSortedFolders + 1) + ")");
    count.bind(time);
    return count.next() && count.number(0) > mostSortedFolders;
}
