#include "ctl/Commands.h"
#include "ctl/HostConfiguration.h"
#include "ctl/Problem.h"

#include <CLI/CLI.hpp>

#include <cstdio>

namespace {

/// Whether all that was printed has arrived: a full disk shows here.
bool outputIsComplete() { return std::fflush(stdout) == 0 && std::ferror(stdout) == 0; }

int run(int argc, char** argv)
{
    Command chosen;
    CLI::App app("Sees, checks and uses the catalogues that the Quarrow daemon keeps.", "quarrowctl");
    app.require_subcommand(1);
    app.fallthrough(); // the options below may also stand behind the subcommand
    app.set_version_flag("--version", "quarrowctl " QUARROW_VERSION);
    app.add_option_function<std::string>("--config", useConfiguration,
           "The host configuration (default: $QUARROW_CONFIG_FILE, else where the daemon looks)")
        ->type_name("FILE");
    for (const auto add : { addStatusCommand, addCheckCommand, addFindCommand, addChangesCommand, addReportCommand,
             addRewalkCommand, addUnitsCommand })
        add(app, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitSuccess : exitRefused;
    }
    const int status = chosen();
    if (!outputIsComplete())
        throw Problem("standard output", "Not all of it could be written", "Is the disk full?");
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception& failure) { // a Problem, or no memory
        std::fprintf(stderr, "quarrowctl: %s\n", failure.what());
        return exitRefused;
    }
}
