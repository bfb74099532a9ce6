#include "config/QuarrowConfig.h"
#include "ctl/Commands.h"
#include "ctl/Problem.h"
#include "ctl/changes/ChangesFollower.h"
#include "ctl/changes/ChangesRun.h"
#include "ctl/changes/LineOutput.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace {

constexpr const char* description
    = "Prints what has changed in the catalogues since the last time, as JSON lines.\n\n"
      "Each folder and file that is new, changed or deleted is a line. The last line has a cursor: give it to the next "
      "run, which then goes on from there. Without a cursor everything is listed. Rows can come twice, but none is left "
      "out. A line {\"event\":\"full-listing\"} says to forget what is known of a volume: all its rows follow. A line "
      "{\"event\":\"restart-needed\"} says that the changes of a volume cannot be told since that cursor, because its "
      "catalogue was made anew, the clock was set back, or deleted rows may have been purged: run again with --full.\n\n"
      "Exit status: 0 all well, 1 a catalogue could not be read (the others were), 2 nothing was done, or "
      "output could not be written, 3 restart needed.";

struct ChangesOptions {
    std::string since;
    std::optional<std::string> cursorFile;
    bool isFull = false;
    bool shallFollow = false;
    std::vector<std::string> volumes;
};

/// Drops the positions of volumes that are not configured any more.
void forgetOthers(ChangeCursor& cursor, const std::vector<ConfiguredVolume>& configured)
{
    ChangeCursor kept;
    for (const ConfiguredVolume& volume : configured) {
        const auto position = cursor.positions.find(volume.name);
        if (position != cursor.positions.end())
            kept.positions.insert(*position);
    }
    cursor = kept;
}

ChangesRun prepare(const ChangesOptions& options)
{
    std::optional<CursorFile> file;
    ChangeCursor cursor;
    if (options.cursorFile) {
        if (options.cursorFile->empty())
            throw Problem("--cursor-file", "The name of the file is empty", "Name a file");
        file.emplace(*options.cursorFile);
        cursor = ChangeCursor::parse(file->read(), file->path());
    } else {
        cursor = ChangeCursor::parse(options.since, "--since");
    }
    const std::vector<ConfiguredVolume> chosen = readConfiguredVolumes(options.volumes);
    const long long threshold = QuarrowConfig::getInstance()->getPurgeThreshold();
    std::vector<VolumeChanges> volumes;
    volumes.reserve(chosen.size());
    for (const ConfiguredVolume& volume : chosen)
        volumes.emplace_back(volume, threshold);
    if (options.volumes.empty())
        forgetOthers(cursor, chosen);
    ChangesRun run(std::move(volumes), std::move(cursor), std::move(file));
    if (options.isFull)
        run.forgetPositions();
    return run;
}

int runChanges(const ChangesOptions& options)
{
    ChangesRun run = prepare(options);
    if (options.shallFollow)
        return ChangesFollower::follow(run);
    LineOutput output;
    for (std::size_t volume = 0; volume < run.volumeCount(); ++volume)
        run.read(volume, VolumeChanges::Restart::refuse, output);
    run.printCursor(output);
    return run.exitStatus();
}

} // namespace

void addChangesCommand(CLI::App& app, Command& chosen)
{
    auto* const command = app.add_subcommand("changes", description);
    const auto options = std::make_shared<ChangesOptions>();
    auto* const since = command->add_option("--since", options->since, "The cursor that the last run has printed")
                            ->type_name("CURSOR");
    command
        ->add_option("--cursor-file", options->cursorFile,
            "Take the cursor from this file, and store the new one in it when all lines are written")
        ->type_name("FILE")
        ->excludes(since);
    command->add_flag("--full", options->isFull, "List every row, live and deleted, whatever the cursor says");
    command->add_flag("--follow", options->shallFollow,
        "Stay and list changes as they come, until SIGTERM or SIGINT. Where a restart is needed, all rows are listed");
    command->add_flag("--json", "Accepted, as in other commands: the lines are JSON always");
    command->add_option("--volume", options->volumes, "Only this volume; may be given again (default: every volume)")
        ->type_name("NAME");
    command->callback([options, &chosen] { chosen = [options] { return runChanges(*options); }; });
}
