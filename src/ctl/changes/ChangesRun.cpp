#include "ctl/changes/ChangesRun.h"

#include "ctl/Commands.h"
#include "ctl/Problem.h"
#include "ctl/changes/LineOutput.h"

#include <fmt/format.h>
#include <unistd.h>

#include <utility>

ChangesRun::ChangesRun(std::vector<VolumeChanges> ofVolumes, ChangeCursor from, std::optional<CursorFile> file)
    : volumes(std::move(ofVolumes))
    , cursorFile(std::move(file))
    , cursor(std::move(from))
{
}

std::vector<std::string> ChangesRun::cataloguePaths() const
{
    std::vector<std::string> paths;
    paths.reserve(volumes.size());
    for (const VolumeChanges& changes : volumes)
        paths.push_back(changes.volume().cataloguePath());
    return paths;
}

void ChangesRun::forgetPositions()
{
    for (const VolumeChanges& changes : volumes)
        cursor.positions.erase(changes.volume().name);
}

void ChangesRun::read(std::size_t volume, VolumeChanges::Restart restart, LineOutput& output)
{
    const VolumeChanges& changes = volumes[volume];
    const auto since = cursor.positions.find(changes.volume().name);
    const std::size_t before = output.mark();
    try {
        const VolumeChanges::Outcome outcome
            = changes.read(since != cursor.positions.end() ? &since->second : nullptr, restart, output);
        output.send();
        wasRestartNeeded = wasRestartNeeded || outcome.isRestartNeeded;
        isPrintDue = isPrintDue || outcome.hasPrinted;
        cursor.positions[changes.volume().name] = outcome.position;
        problems.erase(volume);
    } catch (const OutputFailure&) {
        throw;
    } catch (const Problem& problem) {
        output.takeBack(before);
        std::string& said = problems[volume];
        if (said != problem.what())
            report(problem);
        said = problem.what();
    }
}

bool ChangesRun::hasMoved() const { return cursor.text() != printed; }

void ChangesRun::printCursor(LineOutput& output)
{
    const std::string text = cursor.text();
    output.add(fmt::format("{{\"cursor\":\"{}\"}}\n", text));
    output.finish();
    if (cursorFile)
        cursorFile->write(text);
    printed = text;
    isPrintDue = false;
}

bool ChangesRun::isInTrouble(std::size_t volume) const
{
    return problems.count(volume) != 0 && access(volumes[volume].volume().cataloguePath().c_str(), F_OK) == 0;
}

int ChangesRun::exitStatus() const
{
    return wasRestartNeeded ? exitRestartNeeded : problems.empty() ? exitSuccess : exitProblems;
}
