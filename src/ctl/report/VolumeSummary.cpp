#include "ctl/report/VolumeSummary.h"

#include "ctl/Catalogue.h"
#include "ctl/Query.h"
#include "ctl/Reading.h"

#include <algorithm>

VolumeSummary::VolumeSummary(const Catalogue& catalogue)
{
    DuplicateFinder finder;
    const Reading reading(catalogue);
    readFolders(catalogue);
    readFiles(catalogue, finder);
    readDuplicates(catalogue, finder);
}

void VolumeSummary::readFolders(const Catalogue& catalogue)
{
    Query rows(catalogue, "select path, is_deleted, last_updated_time from Folders");
    while (rows.next()) {
        newestChange = std::max(newestChange, rows.number(2));
        if (rows.number(1) != 0) {
            ++deletedFolders;
            continue;
        }
        ++folders;
        tree.folder(rows.bytes(0));
    }
}

void VolumeSummary::readFiles(const Catalogue& catalogue, DuplicateFinder& finder)
{
    Query count(catalogue, "select count(*) from Files");
    finder.reserve(count.next() ? static_cast<std::size_t>(count.number(0)) : 0);
    Query rows(catalogue,
        "select file_id, path, name, category, size, modified_time, created_time, is_deleted, last_updated_time"
        " from Files");
    while (rows.next()) {
        const std::string_view path = rows.bytes(1);
        const long long size = fileSize(rows.number(4));
        const long long updated = rows.number(8);
        newestChange = std::max(newestChange, updated);
        if (rows.number(7) != 0) {
            ++deletedFiles;
            deleted.offer(updated, path, size, updated);
            continue;
        }
        const std::size_t category = categoryIndex(rows.number(3));
        totals.add(category, size);
        negativeSizes += rows.number(4) < 0 ? 1 : 0;
        tree.addFile(path, category, size);
        modified.add(rows.number(5), category, size);
        arrived.add(rows.number(6), category, size);
        newest.offer(rows.number(6), path, size, rows.number(6));
        largest.offer(size, path, size, rows.number(5));
        finder.add(rows.number(0), rows.bytes(2), size);
    }
}

void VolumeSummary::readDuplicates(const Catalogue& catalogue, DuplicateFinder& finder)
{
    const DuplicateFinder::Result found = finder.find(ListLimits::groups, ListLimits::copies);
    duplicates.groups = found.groups;
    duplicates.files = found.files;
    duplicates.wasted = found.wasted;
    Query row(catalogue, "select name, path from Files where file_id = ?");
    for (const DuplicateFinder::Group& group : found.largest) {
        Duplicates::Group shown { {}, group.size, group.files, group.wasted(), {} };
        for (const long long id : group.ids) {
            row.reset();
            if (!row.bind(id).next())
                continue;
            shown.name = row.bytes(0);
            shown.paths.emplace_back(row.bytes(1));
        }
        duplicates.largest.push_back(std::move(shown));
    }
}
