#include "SystemHooks.h"
#include "VolumeTest.h"

#include "support/SqlTexts.h"

#include <sqlite3.h>

namespace {

/// A catalogue that fails under the walk.
class TreeWalkCatalogueFailureTest : public VolumeTest {
protected:
    TreeWalkCatalogueFailureTest()
    {
        volume.makeFolder("Music");
        initializeQuietly();
    }

    /// A file that stays, and a file and a folder that are gone after the first walk.
    void catalogueWhatThenGoes()
    {
        volume.writeFile("Music/a.mp3");
        volume.writeFile("Music/gone.mp3");
        volume.makeFolder("Music/gone");
        walk("/Music");
        volume.remove("Music/gone.mp3");
        volume.remove("Music/gone");
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
    catalogueWhatThenGoes();
    const BrokenStatement broken(sql::listFiles);
    walk("/Music");
    expectSummary("/Music", 1, 0, 0, 0);
    EXPECT_EQ("[/Music] root\n[/Music/gone] in [/Music]\n", folders());
    EXPECT_EQ("[/Music/a.mp3] 2 in [/Music]\n[/Music/gone.mp3] 2 in [/Music]\n", files());
}

TEST_F(TreeWalkCatalogueFailureTest, failedFolderListLeavesTheFileListAsItIs)
{
    catalogueWhatThenGoes();
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
    EXPECT_EQ(4, liveFiles());
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
        const OnStatement undo([](const std::string& text, sqlite3* connection) {
            if (text.find(sql::listFiles) != std::string::npos) {
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

} // namespace
