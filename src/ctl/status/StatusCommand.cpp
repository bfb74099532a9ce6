#include "ctl/Commands.h"
#include "ctl/Terminal.h"
#include "ctl/status/ActivityLine.h"
#include "ctl/status/HostStatus.h"
#include "ctl/status/StatusForms.h"
#include "ctl/status/TextBar.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

namespace {

constexpr double usualSeconds = 2;

struct Options {
    bool isJson = false;
    bool isMetrics = false;
    bool isDeep = false;
    bool isWatching = false;
    double seconds = 0;
    std::vector<std::string> volumes;
};

void print(const std::string& text) { std::fputs(text.c_str(), stdout); }

/// Lines on the screen; as many as there are where that is not known.
std::size_t screenHeight(std::size_t lines)
{
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row : lines + 1;
}

/// Draws over what is there, so that nothing flickers. The problems are part of the picture.
void drawScreen(const HostStatus& host, const std::string& head)
{
    std::vector<std::string> lines = statusLines(host);
    lines.insert(lines.begin(), head);
    for (const Problem& problem : host.problems())
        lines.push_back(terminal::coloured(problem.what(), terminal::Colour::yellow));
    const std::size_t height = std::max<std::size_t>(screenHeight(lines.size()), 2); // a picture and the cursor's line
    if (lines.size() >= height) {
        lines.resize(height - 1);
        lines.back() = "...";
    }
    print("\033[H");
    for (const std::string& line : lines)
        print(cutToColumns(line, terminal::width()) + "\033[K\n");
    print("\033[J");
}

void show(const HostStatus& host, const Options& options)
{
    if (options.isJson)
        print(statusJson(host) + "\n");
    else if (options.isMetrics)
        print(statusMetrics(host));
    else
        for (const std::string& line : statusLines(host))
            print(line + "\n");
    std::fflush(stdout); // before what follows on standard error
    for (const Problem& problem : host.problems())
        report(problem);
}

int showOnce(const StatusQuestion& question, const Options& options)
{
    HostStatus host;
    {
        ActivityLine activity;
        host = readHostStatus(
            question, [&activity](const std::string& step, double done) { activity.show(step, done); });
    }
    show(host, options);
    return host.problems().empty() ? exitSuccess : exitProblems;
}

/// Until the user ends it, or nobody takes the output any more.
int watch(const StatusQuestion& question, const Options& options)
{
    const bool isScreen = terminal::isTerminal() && !options.isJson;
    if (isScreen)
        print("\033[2J");
    bool isGood = true;
    for (bool isFirst = true; std::fflush(stdout) == 0 && std::ferror(stdout) == 0; isFirst = false) {
        if (!isFirst)
            std::this_thread::sleep_for(std::chrono::duration<double>(options.seconds));
        const HostStatus host = readHostStatus(question, [](const std::string&, double) {});
        isGood = isGood && host.problems().empty();
        if (isScreen) {
            drawScreen(host, fmt::format("Every {:g} s. Ctrl+C ends this.", options.seconds));
        } else {
            if (!isFirst && !options.isJson)
                print("\n");
            show(host, options);
        }
    }
    return isGood ? exitSuccess : exitProblems;
}

int run(const Options& options)
{
    StatusQuestion question;
    question.configuration = configurationPath();
    question.allVolumes = readConfiguredVolumes();
    question.volumes = chooseVolumes(question.allVolumes, options.volumes);
    question.isDeep = options.isDeep;
    return options.isWatching ? watch(question, options) : showOnce(question, options);
}

} // namespace

void addStatusCommand(CLI::App& app, Command& chosen)
{
    CLI::App* const command = app.add_subcommand("status",
        "Shows how the daemon and the catalogues are.\n\n"
        "The daemon: since when it runs, its memory, how many folders it watches, whether it walks the volumes. How far "
        "a walk has come is shown to those who may see its watches and open folders (root, mostly). Each catalogue: "
        "whether it can be read, and what it holds. Ends with 1 when the daemon does not run or a catalogue cannot be used.");
    const auto options = std::make_shared<Options>();
    CLI::Option* const json
        = command->add_flag("--json", options->isJson, "Print one JSON object (with --watch one per line)");
    CLI::Option* const metrics = command->add_flag("--metrics", options->isMetrics,
        "Print OpenMetrics text, for the textfile collector of node_exporter for example");
    CLI::Option* const watching
        = command
              ->add_option("--watch", options->seconds,
                  "Show it again and again, with so many seconds (from 0.1 on) in between (default: 2)")
              ->type_name("[SECONDS]")
              ->expected(0, 1)
              ->check(CLI::Range(0.1, 86400.0).description(""));
    command->add_flag("--deep", options->isDeep,
        "Read each catalogue as a whole to see whether it is undamaged. Takes up to minutes on a large volume, and the "
        "daemon's log grows meanwhile");
    command->add_option("--volume", options->volumes, "Only the volumes with these names")->type_name("NAME");
    metrics->excludes(json)->excludes(watching);
    command->callback([options, watching, &chosen] {
        options->isWatching = watching->count() > 0;
        if (options->seconds == 0) // without a number behind it; 0 itself is refused
            options->seconds = usualSeconds;
        chosen = [options] { return run(*options); };
    });
}
