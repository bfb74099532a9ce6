#include "ctl/find/FindRun.h"

#include "ctl/Catalogue.h"
#include "ctl/Commands.h"
#include "ctl/Problem.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

FindRun::FindRun(const FindTask& wanted)
    : task(wanted)
    , output(wanted.form)
    , best(wanted.limit)
    , status(exitSuccess)
{
}

int FindRun::run()
{
    for (std::size_t number = 0; number < task.volumes.size(); ++number)
        search(number);
    if (task.kind == FindTask::count)
        output.add(std::to_string(count));
    for (const BestRows::Entry& entry : best.take())
        output.add(task.volumes[entry.volume].volume, entry.row);
    output.flush();
    return status;
}

void FindRun::search(std::size_t number)
{
    hasReportedUnseen = false;
    std::unique_ptr<const Catalogue> catalogue;
    try {
        catalogue = std::make_unique<const Catalogue>(task.volumes[number].volume.cataloguePath());
    } catch (const Problem& problem) {
        report(problem);
        status = exitProblems;
        return;
    }
    if (task.selection.folders)
        searchTable(*catalogue, number, RowQueries::Table::folders);
    if (task.selection.files)
        searchTable(*catalogue, number, RowQueries::Table::files);
}

void FindRun::searchTable(const Catalogue& catalogue, std::size_t number, RowQueries::Table table)
{
    const SearchedVolume& searched = task.volumes[number];
    RowSearch search(catalogue, table, task.selection, searched.volume.root, searched.under);
    std::vector<Row> batch;
    for (bool goesOn = true; goesOn;) {
        batch.clear();
        try {
            goesOn = search.next(batch);
        } catch (const Problem& problem) {
            report(problem);
            status = exitProblems;
            goesOn = false;
        }
        for (const Row& row : batch)
            take(number, row);
        output.flush();
    }
}

void FindRun::take(std::size_t number, const Row& row)
{
    const ConfiguredVolume& volume = task.volumes[number].volume;
    const long long value = task.kind == FindTask::newest ? row.changed() : row.size;
    const bool isRanked = task.kind == FindTask::newest || task.kind == FindTask::largest;
    if (isRanked && !best.wants(value))
        return; // before the disk is asked, which may sleep
    if (task.mustBeThere && !isThere(volume, row))
        return;
    switch (task.kind) {
    case FindTask::list:
        output.add(volume, row);
        break;
    case FindTask::count:
        ++count;
        break;
    case FindTask::newest:
    case FindTask::largest:
        best.add(value, number, row);
        break;
    }
}

bool FindRun::isThere(const ConfiguredVolume& volume, const Row& row)
{
    struct stat64 found;
    const std::string path = absolutePath(volume, row);
    if (lstat64(path.c_str(), &found) == 0)
        return true;
    if (errno == ENOENT || errno == ENOTDIR)
        return false;
    status = exitProblems;
    if (!hasReportedUnseen)
        report(Problem(path, std::string("Whether this is still there cannot be seen: ") + std::strerror(errno),
            "It is left out, and so is all else of the volume that cannot be seen"));
    hasReportedUnseen = true;
    return false;
}
