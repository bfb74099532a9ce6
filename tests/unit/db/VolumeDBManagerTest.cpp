#include "db/ReopenedCatalogueTest.h"

#include <filesystem>
#include <functional>

namespace fs = std::filesystem;

namespace {

class VolumeDBManagerTest : public ReopenedCatalogueTest { };

const LogLine closed = { LOG_INFO, "sqlite3 handle closed\n" };

} // namespace

TEST_F(VolumeDBManagerTest, closingLogs)
{
    openNew();
    close();
    EXPECT_EQ((std::vector<LogLine> { closed }), loggedLines());
}

TEST_F(VolumeDBManagerTest, closingWhatWasNeverOpenedLogsToo)
{
    clearLog();
    std::make_unique<VolumeDBManager>().reset();
    EXPECT_EQ((std::vector<LogLine> { closed }), loggedLines());
}

TEST_F(VolumeDBManagerTest, aFailedOpenIsFollowedByAnOrderlyEnd)
{
    volume.makeFolder(".quarrow/quarrow.db");
    auto manager = std::make_unique<VolumeDBManager>();
    EXPECT_THROW(manager->open(dbPath.c_str()), DBOperationException);
    clearLog();
    manager.reset();
    EXPECT_EQ((std::vector<LogLine> { closed }), loggedLines());
}

TEST_F(VolumeDBManagerTest, aSecondOpenClosesTheFirst)
{
    makeClosed();
    const std::string first = dbPath;
    open();
    dbPath = volume.path("other/quarrow.db");
    db->open(dbPath.c_str());
    for (const auto& descriptor : fs::directory_iterator("/proc/self/fd"))
        EXPECT_NE(0U, fs::read_symlink(descriptor).string().rfind(first, 0));
    EXPECT_EQ("quarrow.db\n", dumpCatalogueFolder()) << "left as a plain file";
    DBFolder music = folderAt("/Music");
    EXPECT_FALSE(db->folderExists(music));
    db->open(first.c_str());
    EXPECT_TRUE(db->folderExists(music));
}

TEST_F(VolumeDBManagerTest, beforeOpenEveryOperationFailsInAnOrderlyWay)
{
    VolumeDBManager closed;
    DBFolder folder = folderAt("/Music");
    DBFile file = fileAt("/Music/a.mp3");
    for (const std::function<void()>& operation : std::initializer_list<std::function<void()>> {
             [&] { closed.folderExists(folder); },
             [&] { closed.insertFolder(folder, true); },
             [&] { closed.insertIndividualFolder(folder); },
             [&] { closed.insertFile(file); },
             [&] { closed.deleteFolder(folder); },
             [&] { closed.getListOfFolders(1); },
             [&] { closed.purgeDeletedFiles(0); },
             [&] { closed.updatePathForIndividualFolder(1, 0, "x"); },
             [&] { closed.createDBStructure(); },
             [&] { closed.beginTransaction(); },
             [&] { closed.commitTransaction(); },
             [&] { closed.rollbackTransaction(); },
         })
        EXPECT_TRUE(throwsOperationException(operation));
    closed.useWriteAheadLog();
    closed.keepFiles();
    closed.checkpoint();
    closed.abandonTransaction();
    EXPECT_FALSE(closed.isInTransaction());
    EXPECT_EQ(SQLITE_MISUSE, closed.executeSQLStmt(nullptr));
}
