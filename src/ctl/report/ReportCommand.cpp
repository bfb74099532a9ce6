#include "ctl/Catalogue.h"
#include "ctl/Commands.h"
#include "ctl/HostConfiguration.h"
#include "ctl/Problem.h"
#include "ctl/Text.h"
#include "ctl/report/OutputFile.h"
#include "ctl/report/ReportData.h"
#include "ctl/report/ReportPage.h"
#include "ctl/report/VolumeSummary.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>

namespace {

/// All volumes together show so many folders, or a browser takes long to open the page.
constexpr std::size_t folderLimit = 20000;

struct Options {
    std::string output = "quarrow-report.html";
    std::vector<std::string> volumes;
};

/// Adds each volume; false when one of them is broken.
bool addVolumes(ReportData& data, const std::vector<ConfiguredVolume>& volumes)
{
    bool allRead = true;
    for (const ConfiguredVolume& volume : volumes) {
        try {
            const Catalogue catalogue(volume.cataloguePath());
            const VolumeSummary summary(catalogue);
            data.add(volume, summary, folderLimit / volumes.size());
        } catch (const Problem& problem) {
            report(problem);
            data.addBroken(volume, problem.what());
            allRead = false;
        }
    }
    return allRead;
}

int makeReport(const Options& options)
{
    const std::vector<ConfiguredVolume> volumes = readConfiguredVolumes(options.volumes);
    std::optional<OutputFile> file;
    if (options.output != "-")
        file.emplace(options.output);
    ReportData data;
    const bool allRead = addVolumes(data, volumes);
    const std::string page = reportPage(data.text(std::time(nullptr)));
    if (file) {
        file->replace(page);
        fmt::print("{}: {}\n", visible(options.output), humanBytes(static_cast<long long>(page.size())));
    } else {
        std::fwrite(page.data(), 1, page.size(), stdout); // main() sees to what cannot be written
    }
    return allRead ? exitSuccess : exitProblems;
}

} // namespace

void addReportCommand(CLI::App& app, Command& chosen)
{
    const auto options = std::make_shared<Options>();
    CLI::App* const command
        = app.add_subcommand("report", "Writes a page for a browser: what the volumes hold, and where the space is");
    command->footer(
        "The page is one HTML file that needs neither a network nor a server: categories, growth, a map of\n"
        "the folders by size, newest and largest files, likely duplicates, and what was deleted.");
    command
        ->add_option("-o,--output", options->output,
            "Where to write it, '-' for standard output. An older report there is replaced")
        ->type_name("FILE.html")
        ->capture_default_str();
    command->add_option("--volume", options->volumes, "Only these volumes, by their names in the configuration")
        ->type_name("NAME");
    command->callback([options, &chosen] { chosen = [options] { return makeReport(*options); }; });
}
