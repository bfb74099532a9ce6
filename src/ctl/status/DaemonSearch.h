#pragma once

#include "ctl/HostConfiguration.h"

#include <optional>
#include <string>
#include <vector>

class ProcessFacts;

/// What is known about the daemon of a configuration.
struct DaemonFinding {
    enum class State { running, stopped, unknown };
    State state = State::unknown;
    int process = 0; ///< only when it runs
    /// Its environment names this configuration. False: it is known by the catalogues alone that it has open.
    bool hasConfiguration = false;
    /// Where its environment names another configuration: that one.
    std::string otherConfiguration;

    // For `unknown`: why it cannot be told, and what helps.

    std::string reason;
    std::string remedy;
};

/// Looks for the daemon that runs with a configuration. The daemon writes no PID file, and several may run on one
/// machine. So it is told by the configuration that its environment names, which its own user and root can read, and by
/// the locks that it holds on the catalogues, which everybody can see while they are in write-ahead mode.
///
/// Only processes that belong to root, to the caller or to the owner of one of the catalogues count, by their real,
/// effective and saved user: any program can give itself the daemon's name and lock a file that it may read. Programs
/// with the set-user-ID bit do not count.
class DaemonSearch {
public:
    /// `procFolder`: where the kernel's files are, /proc but for tests.
    DaemonSearch(const std::string& configuration, const std::vector<ConfiguredVolume>& volumes,
        const std::string& procFolder = "/proc");

    DaemonFinding run() const;

private:
    struct Candidate;
    struct Inode {
        unsigned long long device;
        unsigned long long number;
    };

    std::optional<Candidate> examine(int process) const;
    std::vector<Candidate> candidates() const;
    DaemonFinding withoutMatch(bool isAnyInDoubt) const;
    bool isTrusted(const ProcessFacts& process) const;
    bool isCatalogueFile(unsigned long long device, unsigned long long number) const;
    bool hasLockedCatalogue(int process) const;

    const std::string proc;
    const std::string configuration;
    std::vector<Inode> catalogueFiles; ///< the catalogues and the indexes of their logs
    std::vector<unsigned> owners;      ///< whose processes count
    std::vector<int> lockers;          ///< processes that hold a lock on a catalogue
};
