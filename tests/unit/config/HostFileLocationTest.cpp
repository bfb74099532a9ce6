#include "config/HostFileTest.h"
#include "config/PrivateMount.h"

#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

namespace {

constexpr const char* completeFile = "<c><Version>1</Version><last_updated_time>1</last_updated_time><Volumes><Volume>"
                                     "<Name>one</Name><Root>/v1</Root></Volume></Volumes></c>";

/// Where the host configuration file is looked for.
class HostFileLocationTest : public HostFileTest {
protected:
    /// What a daemon finds whose root folder is the temporary folder, so that absolute paths lead into it.
    std::string foundUnderRoot() const
    {
        std::string found = notPermitted;
        std::thread([&] { // a root folder of its own is gone with the thread
            if (unshare(CLONE_FS) != 0 || chroot(folder.path().c_str()) != 0 || chdir("/") != 0)
                return;
            QuarrowConfig config;
            found = config.load() ? "loaded " : "rejected ";
            found += volumes(config);
        })
            .join();
        return found;
    }

    static constexpr const char* notPermitted = "changing the root folder is not permitted";
};

TEST_F(HostFileLocationTest, comesFromTheEnvironment)
{
    folder.writeFile("sub/other.xml", completeFile);
    setenv("QUARROW_CONFIG_FILE", folder.path("sub/other.xml").c_str(), 1);
    EXPECT_TRUE(QuarrowConfig().load());
}

TEST_F(HostFileLocationTest, isFixedWhenTheConfigurationIsMade)
{
    write(completeFile);
    QuarrowConfig config;
    setenv("QUARROW_CONFIG_FILE", folder.path("missing.xml").c_str(), 1);
    EXPECT_TRUE(config.load());
    EXPECT_FALSE(QuarrowConfig().load());
}

TEST_F(HostFileLocationTest, mayBeWrong)
{
    for (const std::string& wrong : { folder.path("missing.xml"), folder.path(), folder.path("no/such/folder") }) {
        clearLog();
        setenv("QUARROW_CONFIG_FILE", wrong.c_str(), 1);
        EXPECT_FALSE(QuarrowConfig().load()) << wrong;
        EXPECT_EQ(parseFailure(), loggedLines()) << wrong;
    }
}

TEST_F(HostFileLocationTest, isThatOfTheApplianceWithoutTheVariable)
{
    folder.writeFile("CacheVolume/.quarrow/quarrow-host.xml", completeFile);
    unsetenv("QUARROW_CONFIG_FILE");
    const std::string found = foundUnderRoot();
    if (found == notPermitted)
        GTEST_SKIP() << notPermitted;
    EXPECT_EQ("loaded one=/v1\n", found);
}

TEST_F(HostFileLocationTest, isNowhereWhenTheVariableIsEmptyNotEvenOnTheAppliance)
{
    folder.writeFile("CacheVolume/.quarrow/quarrow-host.xml", completeFile);
    setenv("QUARROW_CONFIG_FILE", "", 1);
    const std::string found = foundUnderRoot();
    if (found == notPermitted)
        GTEST_SKIP() << notPermitted;
    EXPECT_EQ("rejected ", found);
    EXPECT_EQ(parseFailure(), loggedLines());
}

TEST_F(HostFileLocationTest, isAskedForOnceByTheConfigurationOfTheProcess)
{
    write(completeFile);
    QuarrowConfig* const config = QuarrowConfig::getInstance();
    setenv("QUARROW_CONFIG_FILE", folder.path("missing.xml").c_str(), 1);
    EXPECT_EQ(config, QuarrowConfig::getInstance());
    EXPECT_TRUE(QuarrowConfig::getInstance()->load());
    EXPECT_EQ("one=/v1\n", volumes(*config));
}

TEST_F(HostFileLocationTest, isNotTouchedByMakingTheConfiguration)
{
    write("not xml");
    QuarrowConfig config;
    EXPECT_TRUE(loggedLines().empty());
    write(completeFile);
    EXPECT_TRUE(config.load());
}

TEST_F(HostFileLocationTest, isReadOnly)
{
    write(completeFile);
    QuarrowConfig().load();
    EXPECT_EQ(completeFile, folder.readFile("host.xml"));
    folder.remove("host.xml");
    QuarrowConfig().load();
    EXPECT_FALSE(folder.exists("host.xml"));
}

TEST_F(HostFileLocationTest, mayBeUnusual)
{
    for (const std::string name : { "with blank", "100%25", "a#b?c=d", "x://y", "caf\xe9", "a&b;c", "\"'<>|*" }) {
        folder.writeFile(name + "/host.xml", completeFile);
        setenv("QUARROW_CONFIG_FILE", folder.path(name + "/host.xml").c_str(), 1);
        EXPECT_TRUE(QuarrowConfig().load()) << name;
    }
}

/// Right only in a process of its own: the table of the process is read once.
TEST_F(HostFileLocationTest, leavesTheMimeTableReadBeforeTheFirstThread)
{
    const PrivateMount quarrow = PrivateMount::inMemory("/usr/local/quarrow", "mode=755");
    if (!quarrow.isMounted())
        GTEST_SKIP() << "mounting is not permitted";
    const char* const tablePath = "/usr/local/quarrow/mime_types.txt";
    std::ofstream(tablePath) << "video/mp4 mp4\n";
    const QuarrowConfig config;
    std::ofstream(tablePath) << "audio/mpeg mp4\n";
    EXPECT_EQ(1, oru::db::CategoryMapper::Instance().ExtensionToCategory("mp4"));
}

TEST_F(HostFileLocationTest, mayBeALink)
{
    folder.writeFile("real.xml", completeFile);
    ASSERT_EQ(0, symlink("real.xml", folder.path("host.xml").c_str()));
    EXPECT_TRUE(QuarrowConfig().load());
}

TEST_F(HostFileLocationTest, mayBeUnreadable)
{
    write(completeFile);
    ASSERT_EQ(0, chmod(folder.path("host.xml").c_str(), 0));
    if (access(folder.path("host.xml").c_str(), R_OK) == 0 && seteuid(65534) != 0)
        GTEST_SKIP() << "nobody here is kept from reading";
    clearLog();
    EXPECT_FALSE(QuarrowConfig().load());
    EXPECT_EQ(parseFailure(), loggedLines());
    EXPECT_EQ(0, seteuid(getuid()));
}

} // namespace
