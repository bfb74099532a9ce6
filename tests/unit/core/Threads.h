#pragma once

#include "support/Waiting.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <thread>

/// Runs it on a thread that has ended for the kernel as well: one that was joined stays listed for a moment.
inline void runOnPassingThread(const std::function<void()>& work)
{
    pid_t passing = 0;
    std::thread([&passing, &work] {
        passing = gettid();
        work();
    }).join();
    const std::string listed = "/proc/self/task/" + std::to_string(passing);
    EXPECT_TRUE(waitUntil([&listed] { return !std::filesystem::exists(listed); }));
}

/// The kernel's ids of all threads of the process.
inline std::set<std::string> threadIds()
{
    runOnPassingThread([] {}); // with the first thread comes one of the sanitizer's own, which is to be there already
    std::set<std::string> ids;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
        ids.insert(task.path().filename().string());
    return ids;
}

/// Whether these threads are there and, within a generous bound, no others.
inline bool onlyTheseAreLeft(const std::set<std::string>& threads)
{
    return waitUntil([&threads] { return threadIds() == threads; });
}

/// The mask of blocked signals of a thread, a line, as the kernel shows it.
inline std::string signalsBlockedBy(const std::string& thread)
{
    std::ifstream status("/proc/self/task/" + thread + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 8, "SigBlk:\t") == 0)
            return line.substr(8) + "\n";
    }
    return "";
}

/// The masks of the threads that were not there `before`.
inline std::string signalsBlockedByNewThreads(const std::set<std::string>& before)
{
    std::string masks;
    for (const std::string& id : threadIds()) {
        if (before.count(id) == 0)
            masks += signalsBlockedBy(id);
    }
    return masks;
}

/// The mask of a thread that has blocked whatever it can: not SIGKILL and SIGSTOP, nor those that the C library or an
/// emulator keeps for itself.
inline std::string allSignals()
{
    std::string mask;
    runOnPassingThread([&mask] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        mask = signalsBlockedBy(std::to_string(gettid()));
    });
    EXPECT_NE("", mask);
    return mask;
}
