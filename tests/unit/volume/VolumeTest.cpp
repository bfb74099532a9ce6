#include "VolumeTest.h"

#include "config/QuarrowConfig.h"
#include "watch/VolumeWatcher.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace {

/// Where the process looks for its host configuration from the first look on.
const TemporaryFolder& hostFolder()
{
    static const TemporaryFolder folder;
    setenv("QUARROW_CONFIG_FILE", folder.path("quarrow-host.xml").c_str(), 1);
    return folder;
}

std::string pathElements(const std::string& element, const std::list<std::string>& paths)
{
    std::string xml = "<" + element + ">";
    for (const std::string& path : paths)
        xml += "<Path>" + path + "</Path>";
    return xml + "</" + element + ">";
}

} // namespace

LogLine info(const std::string& text) { return { LOG_INFO, text }; }

LogLine err(const std::string& text) { return { LOG_ERR, text }; }

int timesLoggedFrom(const std::string& start)
{
    const std::vector<LogLine> lines = loggedLines();
    return static_cast<int>(std::count_if(
        lines.begin(), lines.end(), [&start](const LogLine& line) { return line.text.rfind(start, 0) == 0; }));
}

void setModifiedTime(const std::string& path, time_t seconds)
{
    const timespec times[2] = { { 0, UTIME_OMIT }, { seconds, 0 } };
    EXPECT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW)) << path;
}

VolumeTest::VolumeTest()
    : name("Media of " + volume.path())
    , root(volume.path())
    , manager(std::make_unique<VolumeManager>())
{
    hostFolder();
    QuarrowConfig::getInstance();
    watchesBefore = VolumeWatcher::getInstance()->numWatches();
    clearLog();
}

VolumeTest::~VolumeTest() { destroy(); }

void VolumeTest::configure(const std::list<std::string>& crawlPaths, const std::list<std::string>& excludePaths)
{
    hostFolder().writeFile("quarrow-host.xml",
        "<Quarrow><Version>1.0</Version><last_updated_time>1</last_updated_time><Volumes><Volume><Name>" + name
            + "</Name><Root>" + root + "</Root>" + pathElements("CrawlPaths", crawlPaths)
            + pathElements("ExcludePaths", excludePaths) + "</Volume></Volumes></Quarrow>");
    EXPECT_TRUE(QuarrowConfig::getInstance()->load());
}

bool VolumeTest::initialize() { return manager->initialize(name, root); }

void VolumeTest::initializeQuietly()
{
    ASSERT_TRUE(initialize());
    clearLog();
}

void VolumeTest::destroy()
{
    if (manager)
        manager->destroy();
    manager.reset();
}

void VolumeTest::useALinkToTheVolume()
{
    destroy();
    linkFolder = std::make_unique<TemporaryFolder>();
    root = linkFolder->path("volume");
    ASSERT_EQ(0, symlink(volume.path().c_str(), root.c_str()));
    manager = std::make_unique<VolumeManager>();
    initializeQuietly();
}

void VolumeTest::walk(const std::string& below, bool isRootWalk)
{
    clearLog();
    std::string start = root + below;
    manager->walk(start, isRootWalk);
}

void VolumeTest::walkOnThread()
{
    clearLog();
    manager->walkOnce();
    // The first line of the thread comes before it says that it walks, the end of the walk after that.
    ASSERT_TRUE(waitUntil([this] {
        return (timesLoggedFrom("Actively watching ") > 0 || timesLoggedFrom("Got an exception") > 0)
            && !manager->isWalking();
    }));
}

void VolumeTest::catalogueTopLevelFolders(const std::list<std::string>& names)
{
    for (const std::string& folder : names)
        volume.makeFolder(folder);
    for (const std::string& folder : names)
        walk("/" + folder);
}

int VolumeTest::liveFiles() const { return std::stoi(query("select count(*) from Files where is_deleted=0")); }

void VolumeTest::ageRows() const
{
    change("update Folders set last_updated_time=1; update Files set last_updated_time=1");
}

std::string VolumeTest::writtenRows() const
{
    return query(
        "select '['||path||']' from (select path, last_updated_time from Folders union all select path, "
        "last_updated_time from Files) where last_updated_time<>1 and path not like '/.quarrow%' order by path");
}

bool VolumeTest::endsWatchOf(const std::string& below) const
{
    std::string path = root + below;
    return VolumeWatcher::getInstance()->removeDirectoryToWatch(path) != 0;
}

int VolumeTest::watches() const { return VolumeWatcher::getInstance()->numWatches() - watchesBefore; }

LogLine VolumeTest::watching(int folders) const
{
    return info("Actively watching " + std::to_string(watchesBefore + folders) + " folders\n");
}

LogLine VolumeTest::gotAnException() const
{
    return err("Got an exception during the walking of volumeManager " + name + "\n");
}

std::vector<LogLine> VolumeTest::summary(
    const std::string& below, int addedFiles, int deletedFiles, int addedFolders, int deletedFolders) const
{
    return { info("For folder " + root + below),
        info(
            "Add file count = " + std::to_string(addedFiles) + ", Delete file count = " + std::to_string(deletedFiles)),
        info("Add folder count = " + std::to_string(addedFolders)
            + ", Delete folder count = " + std::to_string(deletedFolders)) };
}

void VolumeTest::expectSummary(
    const std::string& below, int addedFiles, int deletedFiles, int addedFolders, int deletedFolders) const
{
    const std::vector<LogLine> expected = summary(below, addedFiles, deletedFiles, addedFolders, deletedFolders);
    const std::vector<LogLine> lines = loggedLines();
    const auto start = std::find(lines.begin(), lines.end(), expected.front());
    ASSERT_LE(3, lines.end() - start) << "no summary of " << below;
    EXPECT_EQ(expected, std::vector<LogLine>(start, start + 3));
}
