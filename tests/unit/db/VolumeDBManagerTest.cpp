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
    VolumeDBManager unopened;
    DBFolder folder = folderAt("/Music");
    DBFile file = fileAt("/Music/a.mp3");
    for (const std::function<void()>& operation : std::initializer_list<std::function<void()>> {
             [&] { unopened.folderExists(folder); },
             [&] { unopened.insertFolder(folder, true); },
             [&] { unopened.insertIndividualFolder(folder); },
             [&] { unopened.insertFile(file); },
             [&] { unopened.deleteFolder(folder); },
             [&] { unopened.getListOfFolders(1); },
             [&] { unopened.purgeDeletedFiles(0); },
             [&] { unopened.updatePathForIndividualFolder(1, 0, "x"); },
             [&] { unopened.createDBStructure(); },
             [&] { unopened.beginTransaction(); },
             [&] { unopened.commitTransaction(); },
             [&] { unopened.rollbackTransaction(); },
         })
        EXPECT_TRUE(throwsOperationException(operation));
    unopened.useWriteAheadLog();
    unopened.keepFiles();
    unopened.checkpoint();
    unopened.abandonTransaction();
    EXPECT_FALSE(unopened.isInTransaction());
    EXPECT_EQ(SQLITE_MISUSE, unopened.executeSQLStmt(nullptr));
}
