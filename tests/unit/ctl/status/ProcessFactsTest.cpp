#include "ctl/status/ProcessFacts.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

std::string statText(const std::string& name, char state, long long start)
{
    return "7 (" + name + ") " + state + " 1 7 7 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 3 0 " + std::to_string(start)
        + " 111 222\n";
}

class ProcessFactsTest : public testing::Test {
protected:
    void write(const std::string& name, const std::string& text) const { proc.writeFile("7/" + name, text); }

    TemporaryFolder proc;
    ProcessFacts process { 7, proc.path() };
};

TEST_F(ProcessFactsTest, aNameMayHoldAnything)
{
    const auto stat = parseProcessStat(statText("a) R (b", 'S', 4711));
    ASSERT_TRUE(stat);
    EXPECT_EQ("a) R (b", stat->name);
    EXPECT_EQ('S', stat->state);
    EXPECT_EQ(4711, stat->startTicks);
    for (const char* broken : { "", "7 (quarrow", "7 )quarrow( S 1", "7 (quarrow) S 1 2 3" })
        EXPECT_FALSE(parseProcessStat(broken)) << broken;
}

TEST_F(ProcessFactsTest, whatHasEndedIsNoProcess)
{
    EXPECT_FALSE(process.stat());
    write("stat", statText("quarrow", 'Z', 1));
    EXPECT_FALSE(process.stat());
    write("stat", statText("quarrow", 'D', 1));
    EXPECT_TRUE(process.stat());
}

TEST_F(ProcessFactsTest, threadsComeInTheOrderOfTheirStart)
{
    for (const auto& [id, start] : { std::pair(9, 30), std::pair(8, 30), std::pair(11, 20), std::pair(10, 40) })
        write("task/" + std::to_string(id) + "/stat", statText("quarrow", 'S', start));
    write("task/12/stat", statText("quarrow", 'X', 10));
    const std::vector<ThreadFacts> expected { { 11, 20 }, { 8, 30 }, { 9, 30 }, { 10, 40 } };
    EXPECT_EQ(expected, process.threads());
}

TEST_F(ProcessFactsTest, memoryIsInBytes)
{
    EXPECT_FALSE(process.memory());
    write("status", "Name:\tquarrow\nVmHWM:\t    2000 kB\nVmRSS:\t    1000 kB\nNotVmRSS:\t 5 kB\n");
    ASSERT_TRUE(process.memory());
    EXPECT_EQ(1024000, process.memory()->resident);
    EXPECT_EQ(2048000, process.memory()->peak);
}

TEST_F(ProcessFactsTest, signalsThatWaitAndSignalsThatAreHandled)
{
    write("status",
        "SigPnd:\tffffffffffffffff\nShdPnd:\t0000000000000200\nSigBlk:\t0000000000004000\n"
        "SigCgt:\t0000000000004000\n");
    EXPECT_TRUE(process.isPending(SIGUSR1));
    EXPECT_FALSE(process.isPending(SIGTERM));
    EXPECT_FALSE(process.handles(SIGUSR1));
    EXPECT_TRUE(process.handles(SIGTERM));
    EXPECT_TRUE(process.letsIn(SIGUSR1));
    EXPECT_FALSE(process.letsIn(SIGTERM));
    proc.remove("7/status");
    EXPECT_FALSE(process.letsIn(SIGUSR1));
}

TEST_F(ProcessFactsTest, pathsAreThoseOfTheProcess)
{
    EXPECT_EQ(proc.path("7/root") + "/etc/a.xml", process.seenByProcess("/etc/a.xml"));
    EXPECT_EQ(proc.path("7/cwd/a.xml"), process.seenByProcess("a.xml"));
}

TEST_F(ProcessFactsTest, watchesAreCountedOverAllInotifyDescriptors)
{
    EXPECT_FALSE(process.watches());
    proc.makeFolder("7/fd");
    EXPECT_FALSE(process.watches());
    for (const auto& [number, target] :
        { std::pair("3", "anon_inode:inotify"), std::pair("4", "/a"), std::pair("5", "anon_inode:inotify") })
        ASSERT_EQ(0, symlink(target, proc.path(std::string("7/fd/") + number).c_str()));
    std::string many = "pos:\t0\nflags:\t00\ninotify_not:1\n";
    for (int i = 0; i < 5000; ++i) // more than is read at once, so that lines are cut
        many += "inotify wd:" + std::to_string(i) + " ino:1 sdev:2 mask:3cc ignored_mask:0 fhandle-bytes:8 inotify x\n";
    write("fdinfo/3", many);
    write("fdinfo/4", "inotify wd:1\n");
    write("fdinfo/5", "inotify wd:1\n");
    EXPECT_EQ(5001, process.watches());
}

TEST_F(ProcessFactsTest, theStartCountsFromTheStartOfTheMachine)
{
    EXPECT_FALSE(secondsSince1970(0, proc.path()));
    proc.writeFile("stat", "cpu 1 2 3\nbtime 1000000\nprocesses 5\n");
    EXPECT_EQ(1000000 + 12, secondsSince1970(12 * sysconf(_SC_CLK_TCK), proc.path()));
}

} // namespace
