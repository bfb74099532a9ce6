#include "ctl/status/DaemonSearch.h"

#include "support/TemporaryFolder.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

/// A /proc of the test's own, with one volume.
class DaemonSearchTest : public testing::Test {
protected:
    DaemonSearchTest()
    {
        configuration = machine.writeFile("etc/host.xml");
        volume = { "Music", machine.path("music"), {}, {} };
        machine.writeFile("music/.quarrow/quarrow.db");
        process(1, "init");
        proc("locks", "");
    }

    void proc(const std::string& name, const std::string& text) const { machine.writeFile("proc/" + name, text); }

    void process(int id, const std::string& name, char state = 'S') const
    {
        proc(std::to_string(id) + "/stat",
            fmt::format("{} ({}) {} 1 7 7 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 3 0 1000 111\n", id, name, state));
        users(id, geteuid(), geteuid(), geteuid());
    }

    void users(int id, unsigned real, unsigned effective, unsigned saved) const
    {
        proc(std::to_string(id) + "/status",
            fmt::format("Name:\tquarrow\nUid:\t{}\t{}\t{}\t{}\nGid:\t0\t0\t0\t0\n"
                        "VmHWM:\t    9000 kB\nVmRSS:\t    8000 kB\n",
                real, effective, saved, effective));
    }

    void loseMemory(int id) const
    {
        proc(std::to_string(id) + "/status", fmt::format("Name:\tquarrow\nUid:\t{0}\t{0}\t{0}\t{0}\n", geteuid()));
    }

    /// A daemon with a root folder like everybody's.
    void daemon(int id, const std::string& file) const
    {
        process(id, "quarrow");
        proc(std::to_string(id) + "/environ",
            std::string("A=QUARROW_CONFIG_FILE=/x") + '\0' + "QUARROW_CONFIG_FILE=" + file + '\0' + "B=" + '\0');
        ASSERT_EQ(0, symlink("/", machine.path("proc/" + std::to_string(id) + "/root").c_str()));
    }

    void lock(int id, const std::string& file) const
    {
        struct stat64 status;
        ASSERT_EQ(0, stat64(machine.path(file).c_str(), &status));
        proc("locks",
            machine.readFile("proc/locks")
                + fmt::format("1: POSIX  ADVISORY  READ {} {:02x}:{:02x}:{} 128 128\n", id, major(status.st_dev),
                    minor(status.st_dev), status.st_ino));
    }

    DaemonFinding find() const { return DaemonSearch(configuration, { volume }, machine.path("proc")).run(); }

    TemporaryFolder machine;
    std::string configuration;
    ConfiguredVolume volume;
};

using State = DaemonFinding::State;

constexpr unsigned stranger = 12345;

TEST_F(DaemonSearchTest, withoutADaemonItIsStopped)
{
    process(20, "other");
    process(21, "quarrow", 'Z');
    EXPECT_EQ(State::stopped, find().state);
}

TEST_F(DaemonSearchTest, oneThatIsAboutToEndHasNoMemoryAndCountsAsEnded)
{
    process(20, "quarrow");
    EXPECT_EQ(State::unknown, find().state);
    loseMemory(20);
    EXPECT_EQ(State::stopped, find().state);
}

TEST_F(DaemonSearchTest, anEmptyEnvironmentNamesTheDefaultConfigurationWhileThereIsMemory)
{
    process(20, "quarrow");
    proc("20/environ", ""); // as some kernels show that of one that is about to end
    configuration = "/CacheVolume/.quarrow/quarrow-host.xml";
    EXPECT_EQ(State::running, find().state);
    loseMemory(20);
    EXPECT_EQ(State::stopped, find().state);
}

TEST_F(DaemonSearchTest, theConfigurationOfItsEnvironmentTells)
{
    daemon(20, machine.writeFile("etc/other.xml"));
    EXPECT_EQ(State::stopped, find().state);
    daemon(21, configuration);
    const DaemonFinding finding = find();
    EXPECT_EQ(State::running, finding.state);
    EXPECT_EQ(21, finding.process);
    EXPECT_TRUE(finding.hasConfiguration);
}

TEST_F(DaemonSearchTest, aConfigurationMayHaveTwoNames)
{
    ASSERT_EQ(0, symlink(configuration.c_str(), machine.path("etc/link.xml").c_str()));
    daemon(20, machine.path("etc/link.xml"));
    EXPECT_TRUE(find().hasConfiguration);
}

TEST_F(DaemonSearchTest, oneNameMayStandForTwoConfigurations)
{
    daemon(20, configuration);
    machine.remove("proc/20/root");
    machine.writeFile("proc/20/root" + configuration); // it has another root
    EXPECT_EQ(State::stopped, find().state);
}

TEST_F(DaemonSearchTest, locksTellWhereTheEnvironmentCannotBeRead)
{
    process(20, "quarrow");
    process(21, "quarrow");
    lock(21, "music/.quarrow/quarrow.db");
    lock(22, "music/.quarrow/quarrow.db"); // some reader
    const DaemonFinding finding = find();
    EXPECT_EQ(State::running, finding.state);
    EXPECT_EQ(21, finding.process);
    EXPECT_FALSE(finding.hasConfiguration);
    EXPECT_EQ("", finding.otherConfiguration);
}

TEST_F(DaemonSearchTest, theIndexOfTheLogIsAsGoodAsTheCatalogue)
{
    machine.writeFile("music/.quarrow/quarrow.db-shm");
    process(20, "quarrow");
    lock(20, "music/.quarrow/quarrow.db-shm");
    EXPECT_EQ(20, find().process);
}

/// The daemon locks the index of the log, which is beside the catalogue itself and not beside the link to it.
TEST_F(DaemonSearchTest, locksTellAlsoWhenTheCatalogueIsKeptElsewhere)
{
    const std::string catalogue = machine.writeFile("elsewhere/catalogue.db");
    machine.writeFile("elsewhere/catalogue.db-shm");
    machine.remove("music/.quarrow/quarrow.db");
    ASSERT_EQ(0, symlink(catalogue.c_str(), volume.cataloguePath().c_str()));
    process(21, "quarrow");
    lock(21, "elsewhere/catalogue.db-shm");
    EXPECT_EQ(21, find().process);
}

TEST_F(DaemonSearchTest, openFilesTellWhereThereAreNoLocks)
{
    const std::string other = machine.writeFile("etc/other.xml");
    daemon(20, other);
    machine.makeFolder("proc/20/fd");
    ASSERT_EQ(0, symlink(volume.cataloguePath().c_str(), machine.path("proc/20/fd/5").c_str()));
    const DaemonFinding finding = find();
    EXPECT_EQ(20, finding.process);
    EXPECT_FALSE(finding.hasConfiguration);
    EXPECT_EQ(other, finding.otherConfiguration);
}

TEST_F(DaemonSearchTest, theConfigurationCountsMoreThanTheCatalogue)
{
    daemon(20, machine.writeFile("etc/other.xml"));
    lock(20, "music/.quarrow/quarrow.db");
    daemon(21, configuration);
    EXPECT_EQ(21, find().process);
}

TEST_F(DaemonSearchTest, aDaemonThatCannotBeToldIsSaid)
{
    process(20, "quarrow");
    EXPECT_EQ(State::unknown, find().state);
    EXPECT_EQ("Run this as root", find().remedy);
}

TEST_F(DaemonSearchTest, twoOfAKindAreNotToldApart)
{
    daemon(20, configuration);
    daemon(21, configuration);
    EXPECT_EQ(State::unknown, find().state);
    EXPECT_EQ("The processes 20 and 21 both seem to be its daemon", find().reason);
    lock(21, "music/.quarrow/quarrow.db");
    EXPECT_EQ(21, find().process);
}

TEST_F(DaemonSearchTest, whereProcessesAreHiddenNothingIsKnown)
{
    machine.remove("proc/1");
    EXPECT_EQ(State::unknown, find().state);
}

TEST_F(DaemonSearchTest, withoutTheVariableItIsTheAppliancesConfiguration)
{
    configuration = "/CacheVolume/.quarrow/quarrow-host.xml";
    process(20, "quarrow");
    proc("20/environ", std::string("PATH=/bin") + '\0');
    EXPECT_TRUE(find().hasConfiguration);
}

TEST_F(DaemonSearchTest, processesOfStrangersDoNotCount)
{
    daemon(20, configuration);
    lock(20, "music/.quarrow/quarrow.db");
    users(20, stranger, stranger, stranger);
    EXPECT_EQ(State::stopped, find().state);
    if (geteuid() != 0)
        GTEST_SKIP() << "the rest needs root";
    ASSERT_EQ(0, chown(volume.cataloguePath().c_str(), stranger, stranger));
    EXPECT_EQ(State::running, find().state);
}

TEST_F(DaemonSearchTest, aStrangersProgramThatRunsAsRootDoesNotCount)
{
    daemon(20, configuration);
    lock(20, "music/.quarrow/quarrow.db");
    ASSERT_EQ(State::running, find().state);
    users(20, stranger, 0, 0);
    EXPECT_EQ(State::stopped, find().state);
    users(20, 0, stranger, 0);
    EXPECT_EQ(State::stopped, find().state);
    users(20, 0, 0, stranger);
    EXPECT_EQ(State::stopped, find().state);
    proc("20/status", "Name:\tquarrow\nUid:\t0\t0\n");
    EXPECT_EQ(State::stopped, find().state);
}

TEST_F(DaemonSearchTest, aProgramThatTakesOnItsOwnersUserDoesNotCount)
{
    daemon(20, configuration);
    const std::string program = machine.writeFile("bin/program");
    ASSERT_EQ(0, symlink(program.c_str(), machine.path("proc/20/exe").c_str()));
    EXPECT_EQ(State::running, find().state);
    ASSERT_EQ(0, chmod(program.c_str(), 04755));
    EXPECT_EQ(State::stopped, find().state);
}

} // namespace
