#include "ctl/Commands.h"
#include "ctl/Problem.h"
#include "ctl/Text.h"
#include "ctl/status/ActivityLine.h"
#include "ctl/status/DaemonSearch.h"
#include "ctl/status/HeldProcess.h"
#include "ctl/status/HostStatus.h"
#include "ctl/status/ProcessFacts.h"
#include "ctl/status/Rewalk.h"
#include "ctl/status/TextBar.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <memory>

namespace {

constexpr const char* procFolder = "/proc";

void say(const std::string& sentence)
{
    fmt::print("{}\n", sentence);
    std::fflush(stdout);
}

std::string nameOf(const ProcessFacts& daemon) { return fmt::format("process {}", daemon.id()); }

/// The daemon of the configuration, and nothing but that. Throws a Problem.
ProcessFacts findDaemon(const std::string& configuration, const std::vector<ConfiguredVolume>& volumes)
{
    const DaemonFinding finding = DaemonSearch(configuration, volumes).run();
    if (finding.state == DaemonFinding::State::stopped)
        throw Problem(
            configuration, "The daemon of this configuration does not run", "It walks all volumes when it starts");
    if (finding.state == DaemonFinding::State::unknown)
        throw Problem(configuration, finding.reason, finding.remedy);
    ProcessFacts daemon(finding.process, procFolder);
    if (kill(daemon.id(), 0) != 0 && errno == EPERM)
        throw Problem(nameOf(daemon), "This user may not send signals to the daemon", "Run this as root");
    if (!finding.otherConfiguration.empty())
        throw Problem(nameOf(daemon),
            "A daemon has these catalogues open, but with another configuration: " + finding.otherConfiguration,
            "Name that one with --config");
    if (!finding.hasConfiguration)
        throw Problem(
            nameOf(daemon), "It cannot be made sure that this is the daemon of this configuration", "Run this as root");
    return daemon;
}

/// Sends SIGUSR1 to the daemon. Throws a Problem.
void signalDaemon(
    const ProcessFacts& daemon, const std::string& configuration, const std::vector<ConfiguredVolume>& volumes)
{
    // What was found may have ended before it was held, and its id may stand for another process now. So it is looked
    // at once more.
    const HeldProcess held(daemon.id());
    if (findDaemon(configuration, volumes).id() != daemon.id())
        throw Problem(configuration, "The daemon was just restarted", "It walks all volumes when it starts");
    if (!daemon.handles(SIGUSR1)) // which would end it
        throw Problem(
            nameOf(daemon), "The daemon is just starting", "It walks all volumes then: nothing is to be done");
    held.send(SIGUSR1);
}

/// What helps when a wish came too soon and nothing was being walked.
std::string whenToTryAgain(const std::vector<ThreadFacts>& threads, long long now)
{
    const auto started = threads.empty() ? std::nullopt : secondsSince1970(threads.front().startTicks, procFolder);
    const auto ready = threads.empty() ? std::nullopt : secondsSince1970(threads.back().startTicks, procFolder);
    if (!started || !ready)
        return "Try again in 5 minutes";
    const long long next = latestNextWish(now, *started, *ready);
    return fmt::format(
        "Try again at {}, in {}: a signal counts from then on at the latest, unless somebody else sends one before",
        localTime(next), duration(next - now));
}

/// What a wish that came too soon has to be told. `walking`: how many volumes were being walked before.
Problem tooSoon(const ProcessFacts& daemon, const Rewalk& wish, int walking, int configured, long long now)
{
    return Problem(nameOf(daemon), whyNoWalkBegan(walking, configured),
        walking == 0 ? whenToTryAgain(wish.threadsBefore(), now)
                     : "Try again when that has ended, and look at the daemon's log for volumes that it left out");
}

/// Waits for the end of the walks. Throws a Problem when the daemon ends first.
void wait(const Rewalk& rewalk, const ProcessFacts& daemon)
{
    const auto begin = std::chrono::steady_clock::now();
    bool isComplete = false;
    {
        ActivityLine activity;
        isComplete = rewalk.waitForEnd([&activity] { activity.show("The volumes are being walked", -1); });
    }
    if (!isComplete)
        throw Problem(nameOf(daemon), "The daemon has ended before its walk", "Look at its log");
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    say("The walk has ended after " + duration(std::chrono::duration_cast<std::chrono::seconds>(elapsed).count())
        + ".");
}

void rewalk(const std::string& configuration, const std::vector<ConfiguredVolume>& volumes, bool shallWait)
{
    const ProcessFacts daemon = findDaemon(configuration, volumes);
    if (isInStandby(daemon.id()) == true)
        throw Problem(nameOf(daemon), "In standby no walk begins, and a signal would only put off the next one",
            "Remove /tmp/standby first");
    Rewalk wish(daemon);
    const long long now = std::time(nullptr);
    signalDaemon(daemon, configuration, volumes);
    const Rewalk::Outcome outcome = wish.observe();
    const auto configured = static_cast<int>(volumes.size());
    const WalkObservation before = observeWalks(wish.threadsBefore(), sysconf(_SC_CLK_TCK));
    const bool isWalkedAnyway = before.running > 0 && before.running >= configured;
    switch (outcome) {
    case Rewalk::Outcome::begun:
        say(fmt::format("The daemon (process {}) walks the volumes.", daemon.id()));
        break;
    case Rewalk::Outcome::finished:
        say(fmt::format("The daemon (process {}) has walked the volumes.", daemon.id()));
        return;
    case Rewalk::Outcome::tooSoon:
        if (!isWalkedAnyway)
            throw tooSoon(daemon, wish, before.running, configured, now);
        say(fmt::format("The daemon (process {}) was walking every volume already.", daemon.id()));
        break;
    case Rewalk::Outcome::notTaken:
        throw Problem(nameOf(daemon), "The daemon is busy and has not taken the signal yet", "It will when it is done");
    case Rewalk::Outcome::ended:
        throw Problem(nameOf(daemon), "The daemon has ended", "Look at its log");
    }
    if (shallWait)
        wait(wish, daemon);
}

int run(bool shallWait)
{
    const std::vector<ConfiguredVolume> volumes = readConfiguredVolumes();
    try {
        rewalk(configurationPath(), volumes, shallWait);
    } catch (const Problem& problem) {
        report(problem);
        return exitProblems;
    }
    return exitSuccess;
}

} // namespace

void addRewalkCommand(CLI::App& app, Command& chosen)
{
    CLI::App* const command = app.add_subcommand("rewalk",
        "Asks the daemon for a full walk of all volumes, and says what comes of it.\n\n"
        "The daemon begins at most one in 300 seconds and none in standby. Ends with 1 when none begins.");
    const auto shallWait = std::make_shared<bool>(false);
    command->add_flag("--wait", *shallWait, "Return when the walk has ended");
    command->callback([shallWait, &chosen] { chosen = [shallWait] { return run(*shallWait); }; });
}
