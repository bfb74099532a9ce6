#include "ctl/status/HeldProcess.h"

#include "ctl/Problem.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <limits>

namespace {

/// A process that does nothing until it is ended.
class Child {
public:
    Child()
        : id(fork())
    {
        while (id == 0)
            pause();
    }
    ~Child()
    {
        if (id > 0)
            end();
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// Waits for its end; the signal that brought it.
    int waitForEnd()
    {
        int status = 0;
        waitpid(id, &status, 0);
        id = -1;
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    int end()
    {
        kill(id, SIGKILL);
        return waitForEnd();
    }

    pid_t id;
};

TEST(HeldProcessTest, theProcessGetsTheSignal)
{
    Child child;
    HeldProcess(child.id).send(SIGTERM);
    EXPECT_EQ(SIGTERM, child.waitForEnd());
}

TEST(HeldProcessTest, aProcessThatHasEndedIsRefused)
{
    Child child;
    const pid_t id = child.id;
    const HeldProcess held(id);
    child.end();
    EXPECT_THROW(held.send(0), Problem);
    EXPECT_THROW(HeldProcess another(id), Problem);
}

TEST(HeldProcessTest, withoutADescriptorNothingIsSentByTheIdAlone)
{
    // Before the limit: a sanitizer that meets a kind of exception for the first time needs a pipe to look into it.
    EXPECT_THROW(HeldProcess(std::numeric_limits<int>::max()).send(0), Problem);
    rlimit before = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const rlimit none = { 0, before.rlim_max };
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    EXPECT_THROW(HeldProcess(getpid()).send(0), Problem);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
}

} // namespace
