#include "ctl/status/VolumeStatus.h"

#include "core/WithoutLinks.h"
#include "ctl/Catalogue.h"
#include "ctl/Query.h"
#include "ctl/Text.h"
#include "ctl/status/CatalogueState.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Reads the figures, or finds them in the cache. `catalogue`, which is open, may be closed on return: the state is
/// read again then.
CatalogueFigures findFigures(const std::string& path, std::optional<Catalogue>& catalogue, const CatalogueState& before,
    const FigureCache& cache, const Progress& progress)
{
    if (const auto kept = cache.find(path, before.text()))
        return *kept;
    const CatalogueFigures figures = readFigures(*catalogue, progress);
    catalogue.reset();
    if (before.isSettled() && CatalogueState(path).text() == before.text())
        cache.keep(path, before.text(), figures);
    return figures;
}

/// The first thing that is wrong with the file as a whole; "ok" when nothing is.
std::string findDamage(const Catalogue& catalogue, const std::string& step, const StepProgress& progress)
{
    constexpr int stepsBetweenReports = 1000000;
    struct Told {
        const std::string& step;
        const StepProgress& progress;
    } told { step, progress };
    const auto tell = [](void* context) {
        const auto* const whom = static_cast<const Told*>(context);
        whom->progress(whom->step, -1);
        return 0;
    };
    sqlite3_progress_handler(catalogue.get(), stepsBetweenReports, tell, &told);
    Query check(catalogue, "PRAGMA integrity_check(1)");
    std::string result(check.next() ? check.bytes(0) : "");
    sqlite3_progress_handler(catalogue.get(), 0, nullptr, nullptr);
    return result;
}

void readCatalogue(VolumeStatus& status, bool isDeep, const FigureCache& cache, const StepProgress& progress)
{
    const std::string path = status.volume.cataloguePath();
    const std::string name = visible(status.volume.name);
    const CatalogueState state(path); // before a connection is open, see there
    std::optional<Catalogue> catalogue(path);
    try {
        status.figures
            = findFigures(path, catalogue, state, cache, [&](double done) { progress("Counting " + name, done); });
        if (!isDeep)
            return;
        if (!catalogue)
            catalogue.emplace(path);
        const std::string damage = findDamage(*catalogue, "Checking " + name, progress);
        status.isSound = damage == "ok";
        if (!*status.isSound)
            throw Problem(
                path, "The catalogue is damaged: " + damage, "Remove it and restart the daemon, which makes it anew");
    } catch (const Problem&) {
        if (isDeep && catalogue && (sqlite3_errcode(catalogue->get()) & 0xff) == SQLITE_CORRUPT)
            status.isSound = false;
        throw;
    }
}

void readStateFile(VolumeStatus& status)
{
    const std::string path = status.volume.stateFilePath();
    status.purge = readPurgeRecord(path);
    if (!status.purge.isKnown && access(path.c_str(), F_OK) == 0)
        status.problems.emplace_back(path, "The time of the last purge cannot be read",
            "If you may read the file, it is damaged: remove it and restart the daemon");
}

} // namespace

VolumeStatus readVolumeStatus(
    const ConfiguredVolume& volume, bool isDeep, const FigureCache& cache, const StepProgress& progress)
{
    VolumeStatus status;
    status.volume = volume;
    struct stat64 file;
    status.isPresent = stat64(volume.cataloguePath().c_str(), &file) == 0;
    status.bytes = status.isPresent ? file.st_size : 0;
    const std::string place = resolveOwnLinks(volume.cataloguePath(), LinkedFile::followed);
    if (stat64((place + "-wal").c_str(), &file) == 0)
        status.bytes += file.st_size;
    readStateFile(status);
    try {
        readCatalogue(status, isDeep, cache, progress);
    } catch (const Problem& problem) {
        status.problems.push_back(problem);
    }
    return status;
}
