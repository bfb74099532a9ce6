#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

/// One thread of a process. Ids are used again, but not with the same start.
struct ThreadFacts {
    int id = 0;
    long long startTicks = 0; ///< clock ticks between the machine's start and the thread's

    bool operator==(const ThreadFacts& other) const { return id == other.id && startTicks == other.startTicks; }
};

/// What the `stat` file of a process or thread says.
struct ProcessStat {
    std::string name; ///< 15 bytes of the program's name at the most
    char state = '?';
    long long startTicks = 0; ///< clock ticks since the machine's start

    /// False for what has ended and is only kept for its parent.
    bool isAlive() const { return state != 'Z' && state != 'X' && state != 'x'; }
};

/// nullopt when the text is no such file.
std::optional<ProcessStat> parseProcessStat(const std::string& text);

struct MemoryUse {
    long long resident = 0; ///< bytes
    long long peak = 0;     ///< bytes, the most that was ever resident
};

/// Another process, as the kernel shows it to everybody, or to those who may trace it. Every call looks anew, so the
/// process may end in between. Nothing throws.
class ProcessFacts {
public:
    /// `procFolder`: where the kernel's files are, /proc but for tests.
    ProcessFacts(int number, const std::string& procFolder);

    int id() const { return number; }
    /// nullopt when there is no such process (any more).
    std::optional<ProcessStat> stat() const;
    /// Its real, effective and saved user; empty when there is no such process (any more).
    std::vector<uid_t> users() const;
    std::optional<MemoryUse> memory() const;
    /// Sorted by start, then id.
    std::vector<ThreadFacts> threads() const;
    /// Whether the signal has been sent to the process and not been taken yet.
    bool isPending(int signal) const;
    /// Whether the process has a handler for the signal.
    bool handles(int signal) const;
    /// Whether the main thread does not block the signal. False also when there is no such process (any more).
    bool letsIn(int signal) const;
    /// The processor time of the threads that are there, in nanoseconds; nullopt when the kernel does not say.
    std::optional<long long> timeOfThreads() const;

    // For those who may trace it alone: its own user, mostly, and root.

    /// Whether its program runs as the program's owner, whoever starts it. False also when it may not be looked at.
    bool isSetUserProgram() const;
    /// The environment as it was at the start, NUL behind each variable; nullopt when it may not be read.
    std::optional<std::string> environment() const;
    /// Where a path leads for the process, which may have another root and another current folder.
    std::string seenByProcess(const std::string& path) const;
    /// The path by which the process knows what this user knows by `path`, an absolute one without links.
    std::string ownPath(const std::string& path) const;
    /// What its descriptors lead to: number and text. Empty when they may not be read.
    std::vector<std::pair<int, std::string>> descriptors() const;
    /// A path by which the file behind a descriptor can be looked at.
    std::string descriptorPath(int descriptor) const;
    /// How many inotify watches it has; nullopt when that may not be read. Takes 4 milliseconds per 1000.
    std::optional<long long> watches() const;

private:
    std::optional<long long> timeOfThread(int thread) const;
    std::optional<bool> hasSignal(const char* set, int signal) const;
    std::string file(const std::string& name) const { return folder + "/" + name; }

    int number;
    std::string folder;
};

/// The content of a file of the kernel's; nullopt when it cannot be read.
std::optional<std::string> readKernelFile(const std::string& path);
/// The numbers among the names of a folder, in no order.
std::vector<int> numbersIn(const std::string& folder);
/// The value of "NAME: VALUE kB" in the text of a `status` file, in bytes.
std::optional<long long> kilobytesIn(const std::string& status, const std::string& name);
/// A start in ticks as seconds since 1970; nullopt when the machine's start is not known.
std::optional<long long> secondsSince1970(long long startTicks, const std::string& procFolder);
