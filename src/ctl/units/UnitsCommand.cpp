#include "ctl/Commands.h"
#include "ctl/FileReplacement.h"
#include "ctl/HostConfiguration.h"
#include "ctl/Problem.h"
#include "ctl/units/UnitDropIn.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace {

int makeDropIn(const std::string& output)
{
    const std::vector<ConfiguredVolume> volumes = readConfiguredVolumes();
    const UnitDropIn dropIn(configurationPath(), volumes);
    for (const Problem& problem : dropIn.problems())
        report(problem);
    if (output == "-")
        fmt::print("{}", dropIn.text());
    else if (!replaceFile(output, dropIn.text(), 0644)) {
        const std::string reason = std::strerror(errno);
        throw Problem(output, "The drop-in cannot be written: " + reason, "Make the folder, or name another file");
    }
    return dropIn.problems().empty() ? exitSuccess : exitProblems;
}

} // namespace

void addUnitsCommand(CLI::App& app, Command& chosen)
{
    const auto output = std::make_shared<std::string>("-");
    CLI::App* const command = app.add_subcommand(
        "units", "Writes what systemd has to know of the volumes, as a drop-in for quarrow.service");
    command->footer(
        "With it the daemon starts only when every volume that systemd mounts is mounted, and may write on the\n"
        "volumes alone. Where Quarrow's generator is installed, systemd makes this drop-in itself at each boot\n"
        "and at each 'systemctl daemon-reload'. The exit status is 1 when a volume cannot be named in a unit: it\n"
        "is left out, and the daemon may write where the unit itself lets it.");
    command->add_option("-o,--output", *output, "Where to write it, '-' for standard output")
        ->type_name("FILE")
        ->capture_default_str();
    command->callback([output, &chosen] { chosen = [output] { return makeDropIn(*output); }; });
}
