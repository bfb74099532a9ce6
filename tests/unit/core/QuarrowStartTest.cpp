#include "core/DaemonFixture.h"
#include "core/QRWException.h"
#include "core/Threads.h"
#include "support/CatalogueReader.h"

#include <fcntl.h>

namespace {

class QuarrowStartTest : public DaemonFixture {
protected:
    /// The message of what start() throws.
    static std::string thrownByStart()
    {
        try {
            Quarrow::getInstance()->start();
        } catch (QRWException& e) {
            return e.what();
        }
        return "nothing";
    }
    static std::string startingAt(const std::string& path)
    {
        return "Crawl paths is empty so starting at " + path + "\n";
    }
};

TEST_F(QuarrowStartTest, thereIsOneForTheProcess)
{
    configure(volume("a"));
    EXPECT_EQ(Quarrow::getInstance(), Quarrow::getInstance());
}

TEST_F(QuarrowStartTest, cataloguesEveryVolume)
{
    configure(volume("a") + volume("b"));
    folder.makeFolder("a/m/Music");
    folder.makeFolder("b/m/Films");
    start(2);
    EXPECT_EQ("/m/Music\n", queryCatalogue(catalogue("a"), "select path from Folders where path = '/m/Music'"));
    EXPECT_EQ("/m/Films\n", queryCatalogue(catalogue("b"), "select path from Folders where path = '/m/Films'"));
    EXPECT_EQ(std::vector<LogLine>(), loggedErrors());
}

TEST_F(QuarrowStartTest, startsTheWatcherAndThePurgeThread)
{
    configure(volumeAt("a", "/dev/null"));
    const std::set<std::string> before = threadIds();
    start();
    EXPECT_EQ(allSignals() + allSignals(), signalsBlockedByNewThreads(before));
}

TEST_F(QuarrowStartTest, aChangeReachesTheListenerOfItsVolume)
{
    configure(volume("a"));
    start(1);
    folder.makeFolder("a/m/new");
    EXPECT_TRUE(
        waitUntilLogged(LOG_INFO, "Going to walk " + folder.path("a/m") + " in handleChangeFolder and found is 1\n"));
    waitForWalks(2);
    EXPECT_EQ("/m/new\n", queryCatalogue(catalogue("a"), "select path from Folders where path = '/m/new'"));
}

TEST_F(QuarrowStartTest, registersEachVolumeWithThePurgeThread)
{
    configure(volume("a"), 3600);
    start(1);
    folder.makeFolder("a/m/new"); // after its burst the purge thread is woken
    EXPECT_TRUE(waitUntilLogged(LOG_INFO, "Purging the DB at 1700000000\n"));
}

TEST_F(QuarrowStartTest, twiceThrows)
{
    configure(volume("a"));
    start(1);
    clearLog();
    EXPECT_EQ("Already started", thrownByStart());
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
}

TEST_F(QuarrowStartTest, withoutConfigurationThrowsAndStartsNothing)
{
    setenv("QUARROW_CONFIG_FILE", folder.path("missing.xml").c_str(), 1);
    const std::set<std::string> before = threadIds();
    EXPECT_EQ("Failed in reading the config file", thrownByStart());
    EXPECT_TRUE(onlyTheseAreLeft(before));
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "Could not parse the config xml\n" } }), loggedLines());
}

TEST_F(QuarrowStartTest, canBeTriedAgainAfterAFailure)
{
    setenv("QUARROW_CONFIG_FILE", folder.path("host.xml").c_str(), 1);
    EXPECT_EQ("Failed in reading the config file", thrownByStart());
    EXPECT_EQ("Failed in reading the config file", thrownByStart());
    configure(volume("a"));
    EXPECT_EQ("nothing", thrownByStart());
    waitForWalks(1);
}

TEST_F(QuarrowStartTest, aConfigurationThatLacksSomethingThrowsWithoutALogLine)
{
    configure("");
    const std::set<std::string> before = threadIds();
    EXPECT_EQ("Failed in reading the config file", thrownByStart());
    EXPECT_TRUE(onlyTheseAreLeft(before));
    EXPECT_EQ(std::vector<LogLine>(), loggedLines());
}

TEST_F(QuarrowStartTest, volumesThatCannotBeInitialisedAreLoggedAndLeftOut)
{
    configure(volumeAt("z", "/dev/null") + volumeAt("c", "/dev/null/c") + volume("m"));
    folder.makeFolder("m/m/Music");
    start(1);
    std::vector<LogLine> skipped;
    for (const LogLine& line : loggedErrors()) {
        if (line.text.compare(0, 10, "Could not ") == 0)
            skipped.push_back(line);
    }
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "Could not open the volume cfg file DBOperationException occurred\n" },
                  { LOG_ERR, "Could not initialize the manager for the volume c\n" },
                  { LOG_ERR, "Could not open the volume cfg file DBOperationException occurred\n" },
                  { LOG_ERR, "Could not initialize the manager for the volume z\n" } }),
        skipped)
        << "in the order of their names";
    EXPECT_EQ("/m/Music\n", queryCatalogue(catalogue("m"), "select path from Folders where path = '/m/Music'"));
}

TEST_F(QuarrowStartTest, aStateFileOfGarbageLeavesTheVolumeOut)
{
    configure(volume("a") + volume("b"));
    spoilStateFile("a");
    start(1);
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "Could not parse the config xml\n" },
                  { LOG_ERR, "Could not open the volume cfg file Could not parse the config xml\n" },
                  { LOG_ERR, "Could not initialize the manager for the volume a\n" } }),
        loggedErrors());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Finished walk. Walk started at " + folder.path("b/m") + "\n"));
    EXPECT_EQ(0, timesLogged(LOG_INFO, "Finished walk. Walk started at " + folder.path("a/m") + "\n"));
}

TEST_F(QuarrowStartTest, oneTrailingSlashIsTakenOffTheRoot)
{
    configure(volumeAt("a", folder.makeFolder("a") + "/") + volumeAt("b", folder.makeFolder("b") + "//")
        + volumeAt("c", folder.makeFolder("c")));
    start(3);
    EXPECT_EQ(1, timesLogged(LOG_INFO, startingAt(folder.path("a"))));
    EXPECT_EQ(1, timesLogged(LOG_INFO, startingAt(folder.path("b/")))) << "only one";
    EXPECT_EQ(1, timesLogged(LOG_INFO, startingAt(folder.path("c"))));
}

/// Makes the folder the root of the file system for the length of the scope.
class Jail {
public:
    explicit Jail(const std::string& path)
        : outside(open("/", O_RDONLY | O_DIRECTORY))
    {
        EXPECT_EQ(0, chroot(path.c_str()));
        EXPECT_EQ(0, chdir("/"));
    }
    ~Jail()
    {
        EXPECT_EQ(0, fchdir(outside));
        EXPECT_EQ(0, chroot("."));
        close(outside);
    }
    Jail(const Jail&) = delete;
    Jail& operator=(const Jail&) = delete;

private:
    int outside;
};

TEST_F(QuarrowStartTest, aRootOfOneSlashBecomesTheEmptyPath)
{
    configure(volumeAt("a", "/"));
    setenv("QUARROW_CONFIG_FILE", "/host.xml", 1);
    Quarrow::getInstance(); // reads the MIME table
    {
        const Jail jail(folder.path());
        start();
        EXPECT_TRUE(waitUntilLogged(LOG_INFO, "Finished walk. Walk started at \n"));
        EXPECT_EQ(1, timesLogged(LOG_INFO, startingAt("")));
        Quarrow::getInstance()->stop();
    }
    EXPECT_TRUE(folder.exists(".quarrow/quarrow.db"));
    EXPECT_EQ(std::vector<LogLine>(), loggedErrors());
}

TEST_F(QuarrowStartTest, inStandbyNoWalkStarts)
{
    configure(volumeAt("a", folder.makeFolder("a")));
    fclose(fopen("/tmp/standby", "w"));
    start();
    Quarrow::getInstance()->stop();
    std::remove("/tmp/standby");
    EXPECT_EQ(0, timesLogged(LOG_INFO, startingAt(folder.path("a"))));
    EXPECT_EQ(std::vector<LogLine>(), loggedErrors());
}

} // namespace
