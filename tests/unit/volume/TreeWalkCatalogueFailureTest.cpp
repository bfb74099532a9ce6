#include "SystemHooks.h"
#include "VolumeTest.h"

#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace {

/// A catalogue that fails under the walk.
class TreeWalkCatalogueFailureTest : public VolumeTest {
protected:
    TreeWalkCatalogueFailureTest()
    {
        volume.makeFolder("Music");
        initializeQuietly();
    }

    LogLine gotAnException() const
    {
        return err("Got an exception during the walking of volumeManager " + name + "\n");
    }
};

TEST_F(TreeWalkCatalogueFailureTest, withoutFolderTableTheFolderIsSkipped)
{
    change("drop table Folders");
    walk("/Music");
    EXPECT_EQ((std::vector<LogLine> { err("folderExists() failed, handleStatus: 21\n"),
                  err("Error in checking for the file " + root + "/Music in the DB\n") }),
        loggedErrors());
    expectSummary("/Music", 0, 0, 0, 0);
    EXPECT_EQ(0, watches());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 1/0\n"));
}

TEST_F(TreeWalkCatalogueFailureTest, withoutFileTableTheListsAreEmptyAndTheWalkGoesOn)
{
    volume.writeFile("Music/a.mp3");
    volume.makeFolder("Music/Rock");
    change("drop table Files");
    walk("/Music");
    EXPECT_EQ((std::vector<LogLine> { err("getSimpleFileListByFolder() failed, handleStatus: 21\n"),
                  err("Error in getting the file/folder list for " + root + "/Music\n"),
                  err("fileExists() failed, handleStatus: 21\n"), err("Error in insert/update of the file a.mp3\n"),
                  err("getSimpleFileListByFolder() failed, handleStatus: 21\n"),
                  err("Error in getting the file/folder list for " + root + "/Music/Rock\n") }),
        loggedErrors());
    EXPECT_EQ("[/Music] root\n[/Music/Rock] in [/Music]\n", folders());
    expectSummary("/Music", 1, 0, 0, 0); // everything on disk counts as new
    EXPECT_EQ(2, watches());
}

TEST_F(TreeWalkCatalogueFailureTest, failedFileListLeavesTheFolderListEmptyToo)
{
    volume.writeFile("Music/a.mp3");
    volume.writeFile("Music/gone.mp3");
    volume.makeFolder("Music/gone");
    walk("/Music");
    volume.remove("Music/gone.mp3");
    volume.remove("Music/gone");
    const BrokenStatement broken("select path , name , modified_time , created_time from  files");
    walk("/Music");
    expectSummary("/Music", 1, 0, 0, 0);
    EXPECT_EQ("[/Music] root\n[/Music/gone] in [/Music]\n", folders());
    EXPECT_EQ("[/Music/a.mp3] 2 in [/Music]\n[/Music/gone.mp3] 2 in [/Music]\n", files());
}

TEST_F(TreeWalkCatalogueFailureTest, failedFolderListLeavesTheFileListAsItIs)
{
    volume.writeFile("Music/a.mp3");
    volume.writeFile("Music/gone.mp3");
    volume.makeFolder("Music/gone");
    walk("/Music");
    volume.remove("Music/gone.mp3");
    volume.remove("Music/gone");
    const BrokenStatement broken("where parent_id=? and is_deleted=0");
    walk("/Music");
    EXPECT_EQ((std::vector<LogLine> { err("getFolderListByFolder() failed, handleStatus: 21\n"),
                  err("Error in getting the file/folder list for " + root + "/Music\n") }),
        loggedErrors());
    expectSummary("/Music", 0, 1, 0, 0);
    EXPECT_EQ("[/Music] root\n[/Music/gone] in [/Music]\n", folders());
}

TEST_F(TreeWalkCatalogueFailureTest, oneFileThatFailsDoesNotKeepTheOthersOut)
{
    volume.writeFile("Music/a.mp3");
    volume.writeFile("Music/b.mp3");
    volume.writeFile("Music/c.mp3");
    walk("/Music");
    setModifiedTime(volume.path("Music/b.mp3"), 77);
    volume.writeFile("Music/d.mp3");
    const BrokenStatement broken("update files set name=?");
    walk("/Music");
    EXPECT_EQ((std::vector<LogLine> {
                  err("updateFile() failed, handleStatus: 21\n"), err("Error in insert/update of the file b.mp3\n") }),
        loggedErrors());
    EXPECT_EQ("4\n", query("select count(*) from Files where is_deleted=0"));
}

TEST_F(TreeWalkCatalogueFailureTest, folderIsUndoneAndTheWalkGoesOnBelowIt)
{
    volume.writeFile("Music/gone.mp3");
    walk("/Music");
    volume.remove("Music/gone.mp3");
    volume.writeFile("Music/a.mp3");
    volume.writeFile("Music/Rock/b.mp3");
    {
        const BrokenStatement broken("update files set is_deleted=1, last_updated_time=strftime('%s','now') where");
        walk("/Music");
    }
    EXPECT_EQ(
        (std::vector<LogLine> { err("deleteFile() failed, handleStatus: 21\n"), gotAnException() }), loggedErrors());
    EXPECT_EQ(0, timesLogged(LOG_INFO, "For folder " + root + "/Music"));
    expectSummary("/Music/Rock", 1, 0, 0, 0);
    EXPECT_EQ("[/Music/Rock/b.mp3] 2 in [/Music/Rock]\n[/Music/gone.mp3] 2 in [/Music]\n", files());
    walk("/Music");
    EXPECT_EQ("[/Music/Rock/b.mp3] 2 in [/Music/Rock]\n[/Music/a.mp3] 2 in [/Music]\n"
              "[/Music/gone.mp3] 2 in [/Music] deleted\n",
        files());
}

TEST_F(TreeWalkCatalogueFailureTest, folderWhoseOwnRowIsUndoneIsNotWalkedBelow)
{
    volume.makeFolder("Music/Rock");
    {
        const BrokenStatement broken("COMMIT");
        walk("/Music");
    }
    EXPECT_EQ(std::vector<LogLine> { gotAnException() }, loggedErrors());
    EXPECT_EQ("", folders());                    // a row for /Music/Rock would hang on no parent for ever
    EXPECT_EQ(0, timesLoggedFrom("For folder")); // nothing was done that a summary could tell of
    walk("/Music");
    EXPECT_EQ("[/Music] root\n[/Music/Rock] in [/Music]\n", folders());
}

TEST_F(TreeWalkCatalogueFailureTest, transactionThatCannotBeginAbandonsTheFolder)
{
    walk("/Music");
    volume.writeFile("Music/a.mp3");
    {
        const BrokenStatement broken("BEGIN");
        walk("/Music");
    }
    EXPECT_EQ(std::vector<LogLine> { gotAnException() }, loggedErrors());
    EXPECT_EQ("", files());
    EXPECT_EQ(1, timesLoggedFrom("Finished walk."));
    walk("/Music");
    EXPECT_EQ("[/Music/a.mp3] 2 in [/Music]\n", files());
}

TEST_F(TreeWalkCatalogueFailureTest, volumeWhoseOwnRowWasUndoneGetsItWithTheNextChange)
{
    configure({});
    volume.writeFile("a.mp3");
    volume.writeFile("Music/b.mp3");
    {
        const BrokenStatement broken("COMMIT");
        walkOnThread();
    }
    ASSERT_EQ("", folders());
    std::string path = root;
    manager->handleChangeFolder(path); // no crawl path, and so no root by itself
    EXPECT_EQ("[] root\n[/Music] in []\n", folders());
    EXPECT_EQ("[/Music/b.mp3] 2 in [/Music]\n[/a.mp3] 2 in []\n", files());
}

TEST_F(TreeWalkCatalogueFailureTest, nothingIsWrittenOnceTheListingHasUndoneTheTransaction)
{
    walk("/Music");
    volume.writeFile("Music/a.mp3");
    ageRows();
    {
        const OnStatement undo([](const std::string& sql, sqlite3* connection) {
            if (sql.find("select path , name , modified_time , created_time from  files") != std::string::npos) {
                // As SQLite itself does when a statement finds the disk full or damaged.
                EXPECT_EQ(SQLITE_OK, sqlite3_exec(connection, "ROLLBACK", nullptr, nullptr, nullptr));
            }
        });
        walk("/Music");
    }
    EXPECT_EQ(std::vector<LogLine> { gotAnException() }, loggedErrors());
    EXPECT_EQ("", writtenRows());
    walk("/Music");
    EXPECT_EQ("[/Music/a.mp3] 2 in [/Music]\n", files());
}

TEST_F(TreeWalkCatalogueFailureTest, emptyCatalogueFileGetsNoTablesAndNoHarmIsDone)
{
    destroy();
    manager = std::make_unique<VolumeManager>();
    volume.writeFile(".quarrow/quarrow.db");
    initializeQuietly();
    walk("/Music");
    EXPECT_EQ(1, timesLogged(LOG_ERR, "Error in checking for the file " + root + "/Music in the DB\n"));
    EXPECT_EQ(1, timesLoggedFrom("Finished walk."));
    EXPECT_EQ("", query("select name from sqlite_master"));
}

TEST_F(TreeWalkCatalogueFailureTest, fileThatIsNoCatalogueStaysAsItIs)
{
    destroy();
    manager = std::make_unique<VolumeManager>();
    volume.remove(".quarrow");
    const std::string text = "Dear diary, " + std::string(2000, '.');
    volume.writeFile(".quarrow/quarrow.db", text);
    initializeQuietly();
    walk("/Music");
    EXPECT_EQ(1, timesLogged(LOG_ERR, "Error in checking for the file " + root + "/Music in the DB\n"));
    EXPECT_EQ(1, timesLoggedFrom("Finished walk."));
    destroy();
    EXPECT_EQ(text, volume.readFile(".quarrow/quarrow.db"));
}

/// The catalogue on a file system of its own that can be filled to the brim.
class TreeWalkFullVolumeTest : public TreeWalkCatalogueFailureTest {
protected:
    void SetUp() override
    {
        destroy();
        volume.remove(".quarrow");
        volume.makeFolder(".quarrow");
        // In a mount namespace of this thread alone, whatever the process was started in.
        ASSERT_EQ(0, unshare(CLONE_NEWNS)) << errno;
        ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr)) << errno;
        ASSERT_EQ(0, mount("tmpfs", volume.path(".quarrow").c_str(), "tmpfs", 0, "size=3m")) << errno;
        mounted = true;
        manager = std::make_unique<VolumeManager>();
        initializeQuietly();
        volume.makeFolder("Music/large");
        volume.makeFolder("Music/small");
        walk("/Music");
        ASSERT_EQ("[/Music] root\n[/Music/large] in [/Music]\n[/Music/small] in [/Music]\n", folders());
    }

    void TearDown() override
    {
        destroy();
        if (mounted) {
            EXPECT_EQ(0, umount(volume.path(".quarrow").c_str()));
        }
    }

    void makeFiles(int count, int nameLength) const
    {
        for (int number = 0; number < count; ++number) {
            std::string file = std::to_string(number);
            file.insert(0, static_cast<std::string::size_type>(nameLength) - file.length(), '0');
            volume.writeFile("Music/large/" + file);
        }
        volume.writeFile("Music/small/a.mp3");
    }

    void fill() const
    {
        std::ofstream ballast(volume.path(".quarrow/ballast"), std::ios::binary);
        const std::string page(4096, 'x');
        while (ballast.write(page.data(), 4096).flush()) { }
    }

    void makeRoom() const
    {
        volume.remove(".quarrow/ballast");
        ASSERT_EQ(0, mount(nullptr, volume.path(".quarrow").c_str(), nullptr, MS_REMOUNT, "size=64m"));
    }

    bool mounted = false;
};

TEST_F(TreeWalkFullVolumeTest, folderThatDoesNotFitIsAbandonedAtItsCommit)
{
    makeFiles(1000, 20);
    fill();
    walk("/Music");
    EXPECT_EQ(std::vector<LogLine> { gotAnException() }, loggedErrors());
    EXPECT_EQ("[/Music/small/a.mp3] 2 in [/Music/small]\n", files());
    makeRoom();
    walk("/Music");
    EXPECT_EQ(std::vector<LogLine> {}, loggedErrors());
    EXPECT_EQ("1001\n", query("select count(*) from Files where is_deleted=0"));
    EXPECT_EQ("ok\n", query("pragma integrity_check"));
}

TEST_F(TreeWalkFullVolumeTest, nothingMoreIsWrittenForAFolderThatFailedHalfWay)
{
    makeFiles(2500, 250); // more than what a transaction keeps in memory
    fill();
    walk("/Music");
    EXPECT_EQ(1, timesLoggedFrom("insertFile() failed, handleStatus: "));
    EXPECT_EQ(1, timesLoggedFrom("Error in insert/update of the file "));
    EXPECT_EQ(gotAnException(), loggedErrors().back());
    EXPECT_EQ(3U, loggedErrors().size());
    EXPECT_EQ("[/Music/small/a.mp3] 2 in [/Music/small]\n", files());
    makeRoom();
    walk("/Music");
    EXPECT_EQ(std::vector<LogLine> {}, loggedErrors());
    EXPECT_EQ("2501\n", query("select count(*) from Files where is_deleted=0"));
    EXPECT_EQ("ok\n", query("pragma integrity_check"));
}

} // namespace
