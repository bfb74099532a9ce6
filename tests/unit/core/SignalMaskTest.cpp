#include "core/SignalMask.h"
#include "support/SyslogCapture.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>
#include <thread>

namespace {

std::string numbersIn(const sigset_t& set)
{
    std::string numbers;
    for (int number = 1; number <= SIGRTMAX; ++number) {
        if (sigismember(&set, number) == 1)
            numbers += std::to_string(number) + " ";
    }
    return numbers;
}

sigset_t setOf(std::initializer_list<int> numbers)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers)
        sigaddset(&set, number);
    return set;
}

std::string blockedNow()
{
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return numbersIn(mask);
}

/// Begins and ends with no signal blocked.
class SignalMaskTest : public ::testing::Test {
protected:
    SignalMaskTest() { set({}); }
    ~SignalMaskTest() override { set({}); }

    static void set(std::initializer_list<int> blocked)
    {
        const sigset_t mask = setOf(blocked);
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    }

    const std::string served = numbersIn(setOf({ SIGTERM, SIGUSR1 }));
};

TEST_F(SignalMaskTest, blockAllSignalsBlocksAllOfTheCallingThread)
{
    std::string blocked;
    std::thread worker([&] {
        blockAllSignals();
        blocked = blockedNow();
    });
    worker.join();
    std::string all; // an emulator may keep some for itself
    std::thread([&all] {
        sigset_t every;
        sigfillset(&every);
        pthread_sigmask(SIG_SETMASK, &every, nullptr);
        all = blockedNow();
    }).join();
    EXPECT_NE("", all);
    EXPECT_EQ(all, blocked);
    EXPECT_EQ("", blockedNow());
    EXPECT_EQ((std::vector<LogLine> { { LOG_INFO, "pthread_sigmask returned 0\n" } }), loggedLines());
}

TEST_F(SignalMaskTest, twoSignalsAreServed) { EXPECT_EQ(served, numbersIn(servedSignals())); }

TEST_F(SignalMaskTest, aScopeBlocksTheServedSignals)
{
    set({ SIGHUP });
    {
        const ServedSignals blocked(ServedSignals::block);
        EXPECT_EQ(numbersIn(setOf({ SIGHUP, SIGTERM, SIGUSR1 })), blockedNow());
    }
    EXPECT_EQ(numbersIn(setOf({ SIGHUP })), blockedNow());
}

TEST_F(SignalMaskTest, aScopeOpensTheServedSignals)
{
    set({ SIGHUP, SIGTERM, SIGUSR1 });
    {
        const ServedSignals open(ServedSignals::open);
        EXPECT_EQ(numbersIn(setOf({ SIGHUP })), blockedNow());
    }
    EXPECT_EQ(numbersIn(setOf({ SIGHUP, SIGTERM, SIGUSR1 })), blockedNow());
}

TEST_F(SignalMaskTest, aScopeInAScopeRestoresWhatItFound)
{
    const ServedSignals outer(ServedSignals::block);
    {
        const ServedSignals inner(ServedSignals::block);
    }
    EXPECT_EQ(served, blockedNow());
}

TEST_F(SignalMaskTest, theMaskOfAWaitIsTheThreadsWithoutTheServedSignals)
{
    set({ SIGHUP, SIGTERM, SIGUSR1, SIGUSR2 });
    EXPECT_EQ(numbersIn(setOf({ SIGHUP, SIGUSR2 })), numbersIn(maskWithServedSignalsOpen()));
    EXPECT_EQ(numbersIn(setOf({ SIGHUP, SIGTERM, SIGUSR1, SIGUSR2 })), blockedNow()) << "it changes nothing";
}

TEST_F(SignalMaskTest, aStopSignalIsPendingUntilItIsServed)
{
    set({ SIGTERM, SIGUSR1 });
    EXPECT_FALSE(isStopSignalPending());
    raise(SIGUSR1);
    EXPECT_FALSE(isStopSignalPending()) << "a wake-up is no stop";
    raise(SIGTERM);
    EXPECT_TRUE(isStopSignalPending());
    int taken = 0;
    const sigset_t both = servedSignals();
    sigwait(&both, &taken);
    sigwait(&both, &taken);
    EXPECT_FALSE(isStopSignalPending());
}

} // namespace
