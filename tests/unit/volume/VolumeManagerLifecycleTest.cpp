#include "VolumeTest.h"

#include "config/QuarrowConfig.h"
#include "watch/VolumeWatcher.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <memory>

namespace {

class VolumeManagerLifecycleTest : public VolumeTest {
protected:
    LogLine version() const { return info(std::string("sqlite version: ") + sqlite3_libversion() + "\n"); }
};

TEST_F(VolumeManagerLifecycleTest, initializeMakesCatalogueAndStateFile)
{
    EXPECT_TRUE(initialize());
    EXPECT_EQ((std::vector<LogLine> { version(), info("Generating schema") }), loggedLines());
    EXPECT_EQ("Files\nFolders\n",
        query("select name from sqlite_master where type='table' and name like 'F%' "
              "order by name"));
    EXPECT_EQ("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Quarrow><Version>1.0</Version><Volume><last_updated_time>0"
              "</last_updated_time><last_purge_time>0</last_purge_time></Volume></Quarrow>\n",
        volume.readFile(".quarrow/quarrow-volume.xml"));
}

TEST_F(VolumeManagerLifecycleTest, initializeTakesWhatIsThere)
{
    ASSERT_TRUE(initialize());
    walk("");
    const std::string before = folders();
    destroy();
    manager = std::make_unique<VolumeManager>();
    clearLog();
    EXPECT_TRUE(initialize());
    EXPECT_EQ(std::vector<LogLine> { version() }, loggedLines());
    EXPECT_EQ(before, folders());
    EXPECT_EQ("[] root\n", before);
}

TEST_F(VolumeManagerLifecycleTest, initializeMakesTheVolumeFolderItself)
{
    std::string missing = volume.path("not/there");
    EXPECT_TRUE(manager->initialize(name, missing));
    EXPECT_TRUE(volume.exists("not/there/.quarrow/quarrow.db"));
    EXPECT_TRUE(volume.exists("not/there/.quarrow/quarrow-volume.xml"));
}

TEST_F(VolumeManagerLifecycleTest, catalogueThatCannotBeMadeIsReportedAsTheStateFile)
{
    volume.writeFile(".quarrow", "a file where the folder should be");
    EXPECT_FALSE(initialize());
    EXPECT_EQ((std::vector<LogLine> { version(), err("open() failed, handleStatus: 14\n"),
                  err("Could not open the volume cfg file DBOperationException occurred\n") }),
        loggedLines());
    EXPECT_EQ("a file where the folder should be", volume.readFile(".quarrow"));
}

TEST_F(VolumeManagerLifecycleTest, catalogueThatIsAFolderIsReportedAsTheStateFile)
{
    volume.makeFolder(".quarrow/quarrow.db");
    EXPECT_FALSE(initialize());
    EXPECT_EQ(1, timesLogged(LOG_ERR, "Could not open the volume cfg file DBOperationException occurred\n"));
    EXPECT_FALSE(volume.exists(".quarrow/quarrow-volume.xml")); // the catalogue comes first
}

TEST_F(VolumeManagerLifecycleTest, stateFileThatCannotBeParsedMakesInitializeFail)
{
    volume.writeFile(".quarrow/quarrow-volume.xml", "<Quarrow><Volume>");
    EXPECT_FALSE(initialize());
    EXPECT_EQ((std::vector<LogLine> { version(), info("Generating schema"), err("Could not parse the config xml\n"),
                  err("Could not open the volume cfg file Could not parse the config xml\n") }),
        loggedLines());
    EXPECT_EQ("<Quarrow><Volume>", volume.readFile(".quarrow/quarrow-volume.xml"));
}

TEST_F(VolumeManagerLifecycleTest, stateFileThatCannotBeMadeIsNoFailure)
{
    volume.makeFolder(".quarrow/quarrow-volume.xml");
    testing::internal::CaptureStdout();
    EXPECT_TRUE(initialize());
    EXPECT_EQ("testXmlwriterMemory: Error at fopen\n", testing::internal::GetCapturedStdout());
}

TEST_F(VolumeManagerLifecycleTest, managerIsKnownByItsName)
{
    initializeQuietly();
    EXPECT_EQ(name, manager->getName());
    EXPECT_EQ(&manager->getName(), &manager->getName());
    EXPECT_FALSE(manager->isWalking());
}

TEST_F(VolumeManagerLifecycleTest, cataloguePathsBeginBehindTheVolumePathAsHandedIn)
{
    volume.makeFolder("shelf/Music");
    std::string path = volume.path("shelf");
    ASSERT_TRUE(manager->initialize(name, path));
    walk("/shelf/Music");
    EXPECT_EQ("[/Music] root\n",
        queryCatalogue(volume.path("shelf/.quarrow/quarrow.db"),
            "select '['||path||'] '||case parent_id when -1 then 'root' end from Folders"));
}

TEST_F(VolumeManagerLifecycleTest, destroyClosesTheCatalogueAndLeavesOneFile)
{
    initializeQuietly();
    walk("");
    EXPECT_TRUE(volume.exists(".quarrow/quarrow.db-wal"));
    clearLog();
    destroy();
    EXPECT_EQ(std::vector<LogLine> { info("sqlite3 handle closed\n") }, loggedLines());
    EXPECT_FALSE(volume.exists(".quarrow/quarrow.db-wal"));
    EXPECT_FALSE(volume.exists(".quarrow/quarrow.db-shm"));
}

TEST_F(VolumeManagerLifecycleTest, destroyTakesTheListenerAwayAndLeavesTheWatches)
{
    initializeQuietly();
    walk("");
    VolumeWatcher* watcher = VolumeWatcher::getInstance();
    watcher->addVolumeWatchListener(name, manager.get());
    std::string path = root;
    inotify_event event = {};
    event.wd = watcher->addDirectoryToWatch(name, path);
    ASSERT_LT(0, event.wd);
    clearLog();
    watcher->handleChangeFolder(&event);
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Going to walk " + root + " in handleChangeFolder and found is 0\n"));

    destroy();
    clearLog();
    watcher->handleChangeFolder(&event);
    EXPECT_EQ(std::vector<LogLine> { err("No listener/directory found for " + name + "\n") }, loggedLines());
    EXPECT_TRUE(endsWatchOf(""));
}

TEST_F(VolumeManagerLifecycleTest, destroyAfterAFailedInitializeClosesWhatThereIs)
{
    volume.writeFile(".quarrow/quarrow-volume.xml", "no xml");
    ASSERT_FALSE(initialize());
    clearLog();
    destroy();
    EXPECT_EQ(std::vector<LogLine> { info("sqlite3 handle closed\n") }, loggedLines());
}

TEST_F(VolumeManagerLifecycleTest, destroyOfAManagerThatWasNeverInitializedIsSafe)
{
    EXPECT_FALSE(manager->isWalking());
    destroy();
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(VolumeManagerLifecycleTest, destroyTwiceClosesOnce)
{
    initializeQuietly();
    manager->destroy();
    manager->destroy();
    EXPECT_EQ(1, timesLogged(LOG_INFO, "sqlite3 handle closed\n"));
}

TEST_F(VolumeManagerLifecycleTest, standbyIsTheSameForEveryVolume)
{
    const auto other = std::make_unique<VolumeManager>();
    EXPECT_FALSE(manager->isVolumeInStandby());
    EXPECT_FALSE(other->isVolumeInStandby());
    ASSERT_EQ(0, mkdir("/tmp/standby", 0755)); // whatever it is
    EXPECT_TRUE(manager->isVolumeInStandby());
    EXPECT_TRUE(other->isVolumeInStandby());
    ASSERT_EQ(0, rmdir("/tmp/standby"));
    EXPECT_FALSE(manager->isVolumeInStandby());
}

TEST_F(VolumeManagerLifecycleTest, failedWalkIsLoggedWithTheName)
{
    initializeQuietly();
    manager->logFailedWalk();
    EXPECT_EQ(std::vector<LogLine> { gotAnException() }, loggedLines());
}

} // namespace
