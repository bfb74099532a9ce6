#include "ctl/Commands.h"
#include "ctl/HostConfiguration.h"
#include "ctl/check/CheckReport.h"
#include "ctl/check/ConfigurationCheck.h"
#include "ctl/check/Machine.h"

#include <CLI/CLI.hpp>
#include <syslog.h>

#include <memory>

namespace {

struct Options {
    std::string configuration;
    bool isGiven = false;
    bool json = false;
};

int check(const Options& options)
{
    if (options.isGiven)
        useConfiguration(options.configuration);
    setlogmask(LOG_MASK(LOG_EMERG)); // the daemon's class logs a refusal: this one is not the daemon's
    const ConfigurationCheck check { Machine() };
    if (options.json)
        printCheckAsJson(check);
    else
        printCheck(check);
    if (!check.isAccepted())
        return exitRefused;
    return check.findings().list().empty() ? exitSuccess : exitProblems;
}

} // namespace

void addCheckCommand(CLI::App& app, Command& chosen)
{
    CLI::App* const command = app.add_subcommand(
        "check", "Says what the daemon would make of a configuration, before it is started with it");
    const auto options = std::make_shared<Options>();
    command
        ->add_option_function<std::string>(
            "CONFIG",
            [options](const std::string& path) {
                options->configuration = path;
                options->isGiven = true;
            },
            "The host configuration to check (default: the one that --config names, or that the daemon finds)")
        ->type_name("");
    command->add_flag("--json", options->json, "Print one JSON object instead of lines");
    command->footer("The exit status is 0 when the daemon accepts the configuration, 1 when it does and there are\n"
                    "warnings, and 2 when it refuses it, or when it is no regular file and is not checked. Run it as\n"
                    "the daemon's user: what that one may not read cannot be checked. Nothing is changed.");
    command->callback([options, &chosen] { chosen = [options] { return check(*options); }; });
}
