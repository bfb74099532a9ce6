#include "ctl/status/EndedThreads.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <thread>

namespace {

/// A process that makes a thread, which ends at once, for every byte that it is sent, and then answers.
class Neighbour {
public:
    Neighbour()
    {
        if (pipe(requests.data()) != 0 || pipe(answers.data()) != 0)
            throw std::runtime_error("no pipe");
        id = fork();
        if (id == 0)
            serve();
    }
    ~Neighbour()
    {
        kill(id, SIGKILL);
        waitpid(id, nullptr, 0);
        for (const int descriptor : { requests[0], requests[1], answers[0], answers[1] })
            close(descriptor);
    }
    Neighbour(const Neighbour&) = delete;
    Neighbour& operator=(const Neighbour&) = delete;

    /// 't' makes a thread; anything else does nothing.
    void ask(char what) const
    {
        ASSERT_EQ(1, write(requests[1], &what, 1));
        ASSERT_EQ(1, read(answers[0], &what, 1));
    }
    ProcessFacts facts() const { return ProcessFacts(id, "/proc"); }

private:
    [[noreturn]] void serve() const
    {
        char what = 0;
        while (read(requests[0], &what, 1) == 1) {
            if (what == 't')
                std::thread([] {}).join();
            if (write(answers[1], &what, 1) != 1)
                break;
        }
        _exit(0);
    }

    std::array<int, 2> requests {};
    std::array<int, 2> answers {};
    pid_t id = 0;
};

TEST(EndedThreadsTest, aThreadThatHasComeAndGoneShows)
{
    const Neighbour neighbour;
    for (int i = 0; i < 10; ++i) {
        neighbour.ask('n');
        const auto before = timeOfEndedThreads(neighbour.facts());
        ASSERT_TRUE(before);
        neighbour.ask('n');
        EXPECT_EQ(before, timeOfEndedThreads(neighbour.facts()));
        neighbour.ask('t');
        EXPECT_TRUE(waitUntil([&neighbour, &before] { // a thread that was joined may still be on its way out
            const auto after = timeOfEndedThreads(neighbour.facts());
            return after && *after > *before;
        }));
    }
}

TEST(EndedThreadsTest, nothingIsKnownOfNoProcess)
{
    EXPECT_FALSE(timeOfEndedThreads(ProcessFacts(0x7ffffff0, "/proc")));
}

} // namespace
