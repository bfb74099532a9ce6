#include "ctl/status/CatalogueFigures.h"

#include "ctl/Catalogue.h"
#include "ctl/Categories.h"
#include "ctl/Query.h"
#include "ctl/Reading.h"

#include <algorithm>

namespace {

constexpr int rowsPerReport = 20000;

long long single(const Catalogue& catalogue, const char* text)
{
    Query query(catalogue, text);
    return query.next() ? query.number(0) : 0;
}

void countFolders(const Catalogue& catalogue, CatalogueFigures& figures)
{
    Query rows(catalogue, "select is_deleted from Folders");
    while (rows.next())
        ++(rows.number(0) == 0 ? figures.folders : figures.deletedFolders);
}

/// Row by row on purpose: an aggregate with conditions takes twice as long, and "group by" sorts all rows.
void countFiles(const Catalogue& catalogue, CatalogueFigures& figures, const Progress& progress)
{
    const auto last = static_cast<double>(std::max(single(catalogue, "select max(file_id) from Files"), 1LL));
    Query rows(catalogue, "select is_deleted, category, size, file_id from Files");
    for (int untilReport = rowsPerReport; rows.next(); --untilReport) {
        if (untilReport == 0) {
            untilReport = rowsPerReport;
            progress(static_cast<double>(rows.number(3)) / last);
        }
        if (rows.number(0) != 0) {
            ++figures.deletedFiles;
            continue;
        }
        CatalogueFigures::Kind& kind = figures.kinds[categoryIndex(rows.number(1))];
        ++kind.files;
        kind.bytes = addBytes(kind.bytes, fileSize(rows.number(2)));
    }
}

} // namespace

CatalogueFigures::Kind CatalogueFigures::all() const
{
    Kind sum;
    for (const Kind& kind : kinds) {
        sum.files += kind.files;
        sum.bytes = addBytes(sum.bytes, kind.bytes);
    }
    return sum;
}

CatalogueFigures readFigures(const Catalogue& catalogue, const Progress& progress)
{
    CatalogueFigures figures;
    const Reading reading(catalogue);
    countFolders(catalogue, figures);
    countFiles(catalogue, figures, progress);
    figures.newestChange = std::max(single(catalogue, "select max(last_updated_time) from Folders"),
        single(catalogue, "select max(last_updated_time) from Files"));
    figures.oldestFolder = single(catalogue, "select min(last_updated_time) from Folders");
    return figures;
}
