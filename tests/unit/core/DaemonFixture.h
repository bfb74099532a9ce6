#pragma once

#include "core/ForeignWriter.h"
#include "core/Quarrow.h"
#include "core/SignalMask.h"
#include "core/Threads.h"
#include "core/VolumesFixture.h"
#include "support/SyslogCapture.h"
#include "support/Waiting.h"
#include "watch/SelectAndSystem.h"

#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

/// The whole daemon but its entry point, in the test's process: the test's thread is the main thread, with the signals
/// and handlers of the daemon. A burst needs no quiet time.
class DaemonFixture : public VolumesFixture {
protected:
    /// A threshold with which no purge is due for years.
    static constexpr int never = 1000000000;

    DaemonFixture()
    {
        threadsBefore = threadIds().size();
        setQuietTime(std::chrono::milliseconds(0));
        const sigset_t blocked = servedSignals();
        pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
        handle(SIGTERM, SA_RESTART, [](int) { Quarrow::getInstance()->stop(); });
        handle(SIGUSR1, SA_RESTART, [](int) { Quarrow::getInstance()->wakeupThread(); });
    }
    ~DaemonFixture() override { Quarrow::getInstance()->stop(); }

    /// One Volume element that crawls /m alone, so that nothing the daemon writes is watched. The folders are made.
    std::string volume(const std::string& name) const
    {
        folder.makeFolder(name + "/m");
        return "<Volume><Name>" + name + "</Name><Root>" + folder.path(name)
            + "</Root><CrawlPaths><Path>/m</Path></CrawlPaths></Volume>";
    }
    /// One Volume element without crawl paths.
    static std::string volumeAt(const std::string& name, const std::string& root)
    {
        return "<Volume><Name>" + name + "</Name><Root>" + root + "</Root></Volume>";
    }

    /// Writes the host configuration. Before the first Quarrow::getInstance().
    void configure(const std::string& volumes, int purgeThreshold = never) const
    {
        setenv("QUARROW_CONFIG_FILE",
            folder
                .writeFile("host.xml",
                    "<Host><Version>1</Version><last_updated_time>1</last_updated_time><purge_threshold>"
                        + std::to_string(purgeThreshold) + "</purge_threshold><Volumes>" + volumes
                        + "</Volumes></Host>")
                .c_str(),
            1);
    }

    /// With SA_RESTART as signal() does it, also under the thread sanitizer, whose signal() interrupts waits.
    static void handle(int number, int flags, void (*handler)(int))
    {
        struct sigaction action = {};
        action.sa_flags = flags;
        action.sa_handler = handler;
        sigaction(number, &action, nullptr);
    }

    /// Starts, and waits until every thread is there and so many volumes have had their first walk.
    static void start(int walks = 0)
    {
        Quarrow::getInstance()->start();
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, "pthread_sigmask returned 0\n", 2 + walks));
        waitForWalks(walks);
        if (walks > 0)
            waitForWalkThreads();
    }
    /// Waits until no walk thread is left: the loop passes a volume over whose walk has not quite ended.
    static void waitForWalkThreads()
    {
        const std::size_t lasting = threadsBefore + 2; // the watcher and the purge thread
        EXPECT_TRUE(waitUntil([lasting] { return threadCount() <= lasting; })) << threadCount();
    }
    static std::size_t threadCount()
    {
        const std::filesystem::directory_iterator threads("/proc/self/task");
        return static_cast<std::size_t>(std::distance(begin(threads), end(threads)));
    }

    /// Runs the control loop, and `script` on a thread beside it; ends the loop with SIGTERM after the script.
    static void run(const std::function<void()>& script)
    {
        std::thread beside([&] {
            script();
            kill(getpid(), SIGTERM);
        });
        Quarrow::getInstance()->run();
        beside.join();
    }
    static void wake() { kill(getpid(), SIGUSR1); }
    /// Wakes the loop again and again, since a volume may be walking still, until the line was logged so often.
    static void wakeUntilLogged(const LogLine& line, int times = 1)
    {
        const auto isLoggedOrWake = [&line, times] {
            const bool isLogged = timesLogged(line.priority, line.text) >= times;
            if (!isLogged)
                wake();
            return isLogged;
        };
        EXPECT_TRUE(waitUntil(isLoggedOrWake, std::chrono::milliseconds(20))) << line.text;
    }
    /// Waits for the first round of the loop, which needs no wake-up, and forgets what was logged until then.
    static void passFirstRound()
    {
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, tooSoon(aMoment, 0)));
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, "Going to sleep.\n", 2));
        clearLog();
    }
    /// Waits until so many walks have ended but for their last steps.
    static void waitForWalks(int walks) { EXPECT_TRUE(waitUntilLogged(LOG_INFO, endOfWalk, walks)); }

    static constexpr const char* endOfWalk = "The time taken: 0\n";
    static constexpr const char* served = "We received a wake up message from the signal handler\n";
    /// What a walk of volume() logs when its thread is at work and has not written yet; only from the second walk on.
    static constexpr const char* walking = "Checking if the folder /m exists in the path list";
    static std::string tooSoon(time_t lastWalk, int elapsed)
    {
        return "Woke up too soon. Going back " + std::to_string(lastWalk) + " === " + std::to_string(elapsed) + "\n";
    }

private:
    static inline std::size_t threadsBefore = 0; ///< this one, and what a sanitizer or an emulator has
};
