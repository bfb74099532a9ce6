#pragma once

#include <functional>

namespace CLI {
class App;
}

/// What quarrowctl ends with.
enum ExitStatus {
    exitSuccess = 0,
    exitProblems = 1, ///< something was said on standard error, or a check found something; the rest was done
    exitRefused = 2,  ///< nothing was done: the arguments or the configuration cannot be used
};

/// The command that the arguments ask for. main() runs it when all arguments were read. It may throw a Problem.
using Command = std::function<int()>;

// Each of these adds one subcommand with its options to the command line. When the arguments name it, it puts its work
// into `chosen`, which outlives the command line.

void addChangesCommand(CLI::App& app, Command& chosen);
void addCheckCommand(CLI::App& app, Command& chosen);
void addFindCommand(CLI::App& app, Command& chosen);
void addReportCommand(CLI::App& app, Command& chosen);
void addRewalkCommand(CLI::App& app, Command& chosen);
void addStatusCommand(CLI::App& app, Command& chosen);
void addUnitsCommand(CLI::App& app, Command& chosen);
