#include "ctl/Commands.h"

#include "ctl/Problem.h"
#include "ctl/Terminal.h"
#include "ctl/find/FindRun.h"
#include "ctl/find/SizeAndAge.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

/// The options as they were given.
struct Arguments {
    std::optional<std::string> pattern;
    bool exact = false;
    bool ignoreCase = false;
    std::vector<std::string> volumes;
    std::optional<std::string> under;
    std::optional<std::string> type;
    std::vector<std::string> categories;
    std::optional<std::string> larger;
    std::optional<std::string> changedWithin;
    bool deleted = false;
    bool exists = false;
    bool detailed = false;
    bool nul = false;
    bool json = false;
    bool count = false;
    std::size_t limit = 20;
};

void fillTypes(const Arguments& arguments, FindTask& task)
{
    const bool onlyFiles = !arguments.categories.empty() || arguments.larger || task.kind == FindTask::newest
        || task.kind == FindTask::largest;
    if (onlyFiles && arguments.type == "d")
        throw Problem("--type d", "This search is for files only: by size, by category, or recent and largest",
            "Leave this option out");
    task.selection.files = arguments.type != "d";
    task.selection.folders = !onlyFiles && arguments.type != "f";
    static const std::vector<std::string> names = { "video", "audio", "image", "other" };
    for (const std::string& category : arguments.categories) {
        const auto place = std::find(names.begin(), names.end(), category);
        if (place == names.end())
            throw Problem(
                "--category " + category, "There is no such category", "Give some of video,audio,image,other");
        task.selection.categories.push_back(place - names.begin() + 1);
    }
}

int find(const Arguments& arguments, FindTask::Kind kind)
{
    FindTask task;
    task.kind = arguments.count ? FindTask::count : kind;
    fillTypes(arguments, task);
    if (arguments.pattern)
        task.selection.pattern.emplace(*arguments.pattern,
            arguments.exact ? NamePattern::Words::exact : NamePattern::Words::wildcards, arguments.ignoreCase);
    if (arguments.larger)
        task.selection.largerThan = parseSize("--larger", *arguments.larger);
    if (arguments.changedWithin)
        task.selection.changedSince = std::time(nullptr) - parseAge("--changed-within", *arguments.changedWithin);
    task.selection.deleted = arguments.deleted;
    task.mustBeThere = arguments.exists;
    task.limit = arguments.limit;
    task.form.kind = arguments.json ? RowOutput::Form::json : RowOutput::Form::paths;
    task.form.end = arguments.nul ? '\0' : '\n';
    task.form.readable = terminal::isTerminal() && !arguments.nul;
    // Who looks at the largest files wants to see how large they are; who pipes them on wants the files.
    task.form.detailed = arguments.detailed || (kind != FindTask::list && task.form.readable);
    const std::vector<ConfiguredVolume> volumes = readConfiguredVolumes(arguments.volumes);
    task.volumes = arguments.under ? below(*arguments.under, volumes) : everywhere(volumes);
    return FindRun(task).run();
}

void addPattern(CLI::App& app, Arguments& arguments)
{
    app.add_option("PATTERN", arguments.pattern, "A part of the name, or with wild cards all of it; see below");
    app.add_flag("-x,--exact", arguments.exact, "PATTERN is the whole name or path, nothing in it a wild card");
    app.add_flag("-i,--ignore-case", arguments.ignoreCase, "Take A to Z for a to z; other letters keep their case");
}

void addFilters(CLI::App& app, Arguments& arguments)
{
    app.add_option("--volume", arguments.volumes, "Only in this volume; may be repeated (default: all)")
        ->type_name("NAME")
        ->allow_extra_args(false);
    app.add_option("--under", arguments.under, "Only below this folder, which need not exist any more; see below")
        ->type_name("FOLDER");
    app.add_option("--type", arguments.type, "Only files: f; only folders: d")
        ->type_name("f|d")
        ->check(CLI::IsMember({ "f", "d" }));
    app.add_option("--category", arguments.categories, "Only files that are video, audio, image or other, with commas")
        ->type_name("LIST")
        ->delimiter(',')
        ->allow_extra_args(false);
    app.add_option("--larger", arguments.larger, "Only files of more bytes: 2000, 500K, 1.5G (of 1024), 10MB (of 1000)")
        ->type_name("SIZE");
    app.add_option("--changed-within", arguments.changedWithin, "Only what was modified in this time: 90m, 3h, 2d, 1w")
        ->type_name("TIME");
    app.add_flag(
        "--deleted", arguments.deleted, "What is gone and not yet purged, instead of what is there; see below");
    app.add_flag("--exists", arguments.exists, "Look at the disk, and leave out what is not there any more");
}

void addForms(CLI::App& app, Arguments& arguments)
{
    auto* const detailed
        = app.add_flag("-l,--long", arguments.detailed, "Size in bytes and time in front of each path");
    auto* const nul = app.add_flag("-0,--null", arguments.nul, "A NUL instead of each line end, for 'xargs -0'");
    auto* const json = app.add_flag("--json", arguments.json, "A JSON object per line; see below");
    json->excludes(nul)->excludes(detailed);
    if (app.get_name() == "find")
        app.add_flag("--count", arguments.count, "Only how many")->excludes(nul)->excludes(detailed)->excludes(json);
    else
        app.add_option("-n,--limit", arguments.limit, "How many (default: 20)")
            ->type_name("NUMBER")
            ->check(CLI::Range(1, 100000));
}

constexpr const char* footer = R"(
Names. PATTERN without wild cards is a part of the name: 'live' finds olive.jpg, and Live.mp3 with -i. With * ? [ ] it
is for the whole name: '*.mp3', 'IMG_000?.jpg', '[A-C]*'; a backslash takes a wild card for what it is. With a slash in
it, it is for the absolute path: '/Live/' is a part of it, '/srv/media/*/Live/*' all of it, where * takes slashes as
well. Quote it, or the shell replaces the wild cards.

Places. FOLDER is an absolute path or one from the current folder, as these are printed. It is in a volume, or has
volumes in it. What is below it is searched, not the folder itself.

Deletions. --deleted lists what the daemon has seen to be gone. The time of such a file, also for --changed-within and
-l, is that of its deletion. The catalogue may be some seconds behind the disk, or more when the daemon does not run;
--exists asks the disk.

Output. Absolute paths, one per line: volume by volume, folders before files, as they were first catalogued. In a pipe they are the
names' bytes, with a line end in a name as it is: use -0. On a terminal that is shown as \n, and recent and largest
have the form of -l. Objects of --json have volume, type, path, size and category (of files), modified, changed (the
time that --changed-within means) and deleted. Times are seconds since 1970. A path that is no UTF-8 has all its bytes
in path_hex. A size that was stored in 32 bits, of a large file that came back, is the smallest that it can be.

Status. 0, also when nothing is found; 1 when a volume could not be read and the others were; 2 when refused.)";

void add(CLI::App& app, Command& chosen, const char* name, const char* description, FindTask::Kind kind)
{
    CLI::App* const command = app.add_subcommand(name, description);
    const auto arguments = std::make_shared<Arguments>();
    addPattern(*command, *arguments);
    addFilters(*command, *arguments);
    addForms(*command, *arguments);
    command->footer(footer);
    command->callback([arguments, &chosen, kind] { chosen = [arguments, kind] { return find(*arguments, kind); }; });
}

} // namespace

void addFindCommand(CLI::App& app, Command& chosen)
{
    add(app, chosen, "find", "Lists files and folders by name, place, category, size and time", FindTask::list);
    add(app, chosen, "recent", "Lists the files that were modified last, the newest first", FindTask::newest);
    add(app, chosen, "largest", "Lists the largest files, the largest first", FindTask::largest);
}
