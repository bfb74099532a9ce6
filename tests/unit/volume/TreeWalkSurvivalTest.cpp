#include "SystemHooks.h"
#include "VolumeTest.h"

#include "support/SqlTexts.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Folders that change while they are walked, that cannot be read, and what users call their files.
class TreeWalkSurvivalTest : public VolumeTest {
protected:
    TreeWalkSurvivalTest()
    {
        volume.makeFolder("Music");
        initializeQuietly();
    }

    /// Does something when the folder has been read.
    template <typename Action>
    OnReaddir::Hook atTheEndOf(const std::string& below, Action action)
    {
        return [this, below, action](const std::string& folder, dirent* entry) {
            if (folder == root + below && entry == nullptr)
                action();
            return entry;
        };
    }
};

TEST_F(TreeWalkSurvivalTest, fileThatGoesBeforeItIsLookedAtIsNotInserted)
{
    volume.writeFile("Music/a.mp3");
    volume.writeFile("Music/b.mp3");
    const OnReaddir hook(atTheEndOf("/Music", [this] { volume.remove("Music/a.mp3"); }));
    walk("/Music");
    EXPECT_EQ("[/Music/b.mp3] 2 in [/Music]\n", files());
    expectSummary("/Music", 2, 0, 0, 0); // counted as it was read
    EXPECT_EQ(0, timesLoggedFrom("Error"));
}

TEST_F(TreeWalkSurvivalTest, fileThatBecomesALinkIsNotInserted)
{
    volume.writeFile("secret.mp3", "outside");
    volume.writeFile("Music/a.mp3");
    const OnReaddir hook(atTheEndOf("/Music", [this] {
        volume.remove("Music/a.mp3");
        ASSERT_EQ(0, symlink(volume.path("secret.mp3").c_str(), volume.path("Music/a.mp3").c_str()));
    }));
    walk("/Music");
    EXPECT_EQ("", files());
}

TEST_F(TreeWalkSurvivalTest, folderThatBecomesALinkIsNotWalked)
{
    volume.writeFile("outside/secret.mp3");
    volume.makeFolder("Music/Rock");
    const OnReaddir hook(atTheEndOf("/Music", [this] {
        volume.remove("Music/Rock");
        ASSERT_EQ(0, symlink(volume.path("outside").c_str(), volume.path("Music/Rock").c_str()));
    }));
    walk("/Music");
    EXPECT_EQ("[/Music] root\n", folders());
    EXPECT_EQ("", files());
    EXPECT_EQ(1, watches());
}

TEST_F(TreeWalkSurvivalTest, folderThatBecomesALinkAfterTheFirstLookIsNotRead)
{
    volume.writeFile("outside/secret.mp3");
    volume.makeFolder("Music/Rock");
    walk("/Music");
    int listings = 0;
    const OnStatement hook([&](const std::string& text, sqlite3*) {
        if (text.find(sql::listFiles) == std::string::npos || ++listings != 2)
            return;
        volume.remove("Music/Rock");
        ASSERT_EQ(0, symlink(volume.path("outside").c_str(), volume.path("Music/Rock").c_str()));
    });
    walk("/Music");
    EXPECT_EQ(2, listings); // of /Music, and of the folder that was one when its own row was looked at
    EXPECT_EQ("", files());
}

TEST_F(TreeWalkSurvivalTest, nothingIsWalkedThroughALinkThatTookTheFolderAbove)
{
    volume.writeFile("outside/Live/secret.mp3");
    volume.makeFolder("Music/Rock/Live");
    const OnReaddir hook(atTheEndOf("/Music/Rock", [this] { // and Live is in the queue
        volume.remove("Music/Rock");
        ASSERT_EQ(0, symlink(volume.path("outside").c_str(), volume.path("Music/Rock").c_str()));
    }));
    walk("/Music");
    EXPECT_EQ("[/Music] root\n[/Music/Rock] in [/Music]\n", folders());
    EXPECT_EQ("", files());
    EXPECT_EQ(2, watches());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 3/0\n"));
}

TEST_F(TreeWalkSurvivalTest, crawlPathsMayLeadThroughLinks)
{
    volume.writeFile("real/deep/Rock/a.mp3");
    volume.writeFile("Music/b.mp3");
    ASSERT_EQ(0, symlink("real", volume.path("link").c_str()));
    ASSERT_EQ(0, symlink("../Music", volume.path("real/music").c_str()));
    configure({ "/link/deep", "/link/music" });
    walkOnThread();
    EXPECT_EQ("[/link/deep/Rock/a.mp3] 2 in [/link/deep/Rock]\n[/link/music/b.mp3] 2 in [/link/music]\n", files());
    EXPECT_EQ(3, watches());
}

TEST_F(TreeWalkSurvivalTest, volumeMayBeALink)
{
    volume.writeFile("Music/Rock/a.mp3");
    useALinkToTheVolume();
    walkOnThread();
    EXPECT_EQ("[] root\n[/Music] in []\n[/Music/Rock] in [/Music]\n", folders());
    EXPECT_EQ("[/Music/Rock/a.mp3] 2 in [/Music/Rock]\n", files());
}

TEST_F(TreeWalkSurvivalTest, startFolderMayBeALink)
{
    volume.writeFile("real/a.mp3");
    volume.makeFolder("real/Rock");
    ASSERT_EQ(0, symlink("real", volume.path("link").c_str()));
    walk("/link");
    EXPECT_EQ("[/link] root\n[/link/Rock] in [/link]\n", folders());
    EXPECT_EQ("[/link/a.mp3] 2 in [/link]\n", files());
}

TEST_F(TreeWalkSurvivalTest, readingThatFailsHalfWayIsNotTheEndOfTheFolder)
{
    for (const char* file : { "Music/a", "Music/b", "Music/c" })
        volume.writeFile(file);
    volume.writeFile("Music/x/1");
    volume.writeFile("Music/y/2");
    walk("/Music");
    volume.writeFile("Music/d");
    setModifiedTime(volume.path("Music"), 1000);
    ageRows();
    {
        int left = 4;
        const OnReaddir fail([&](const std::string& folder, dirent* entry) {
            return folder == root + "/Music" && --left <= 0 ? OnReaddir::failure() : entry;
        });
        walk("/Music");
        EXPECT_EQ("[/Music]\n", writtenRows()); // its own time, and nothing of what is in it
        expectSummary("/Music", 0, 0, 0, 0);
    }
    walk("/Music");
    EXPECT_EQ("[/Music/a] 4 in [/Music]\n[/Music/b] 4 in [/Music]\n[/Music/c] 4 in [/Music]\n"
              "[/Music/d] 4 in [/Music]\n[/Music/x/1] 4 in [/Music/x]\n[/Music/y/2] 4 in [/Music/y]\n",
        files());
}

TEST_F(TreeWalkSurvivalTest, subfoldersReadBeforeAFailureAreWalked)
{
    volume.writeFile("Music/x/1");
    volume.writeFile("Music/a");
    bool found = false;
    const OnReaddir fail([&](const std::string& folder, dirent* entry) {
        if (folder != root + "/Music")
            return entry;
        if (found)
            return OnReaddir::failure();
        found = entry != nullptr && entry->d_name[0] == 'x';
        return entry;
    });
    walk("/Music");
    EXPECT_EQ("[/Music] root\n[/Music/x] in [/Music]\n", folders());
    EXPECT_EQ("[/Music/x/1] 4 in [/Music/x]\n", files());
}

TEST_F(TreeWalkSurvivalTest, namesAreBytes)
{
    const std::vector<std::string> names { "\xFF\xFE\xC3", "new\nline", "tab\there", "quote'\"", "back\\slash",
        "100%s%n", " ", "-rf", "*", ";drop table Files", std::string(255, 'n'), "\xC3\xA4", "a\x01\x7F" };
    for (const std::string& file : names) {
        volume.writeFile("Music/f/" + file);
        volume.makeFolder("Music/d/" + file);
    }
    walk("/Music");
    for (const std::string& entry : names) {
        std::string hex;
        for (const char byte : entry) {
            const char* digits = "0123456789ABCDEF";
            hex += digits[static_cast<unsigned char>(byte) >> 4U];
            hex += digits[static_cast<unsigned char>(byte) & 15U];
        }
        const std::string where = " where is_deleted=0 and hex(name)='" + hex + "' and hex(path)=hex('/Music/";
        EXPECT_EQ("1\n", query("select count(*) from Files" + where + "f/')||'" + hex + "'")) << entry;
        EXPECT_EQ("1\n", query("select count(*) from Folders" + where + "d/')||'" + hex + "'")) << entry;
        EXPECT_TRUE(endsWatchOf("/Music/d/" + entry)) << entry;
    }
    ageRows();
    walk("/Music");
    EXPECT_EQ("", writtenRows());
    volume.remove("Music/f");
    volume.remove("Music/d");
    walk("/Music");
    EXPECT_EQ(0, liveFiles());
    EXPECT_EQ("[/Music] root\n", query("select '['||path||'] root' from Folders where is_deleted=0"));
}

TEST_F(TreeWalkSurvivalTest, pathsLongerThan1024BytesAreCatalogued)
{
    std::string below = "Music";
    for (int level = 0; level < 8; ++level)
        below += "/" + std::string(200, static_cast<char>('a' + level));
    volume.writeFile(below + "/1.mp3");
    walk("/Music");
    EXPECT_EQ("[/" + below + "/1.mp3] 2 in [/" + below + "]\n", files());
    EXPECT_TRUE(endsWatchOf("/" + below));
}

TEST_F(TreeWalkSurvivalTest, timesBeyond2038AreNoChangeEachTime)
{
    setModifiedTime(volume.writeFile("Music/Rock/a.mp3"), 4102444800);
    setModifiedTime(volume.path("Music/Rock"), 4102444800);
    walk("/Music");
    EXPECT_EQ("-192522496\n", query("select modified_time from Files"));
    EXPECT_EQ("-192522496\n", query("select modified_time from Folders where name='Rock'"));
    ageRows();
    walk("/Music");
    EXPECT_EQ("", writtenRows());
}

TEST_F(TreeWalkSurvivalTest, twoRowsOfOneFileBecomeOne)
{
    volume.writeFile("Music/a.mp3");
    volume.makeFolder("Music/Rock");
    walk("/Music");
    change("insert into Files select 900, folder_id, path, name, category, size, modified_time, created_time, "
           "is_deleted, is_backup, is_hidden, is_system, last_updated_time from Files");
    walk("/Music");
    EXPECT_EQ(1, liveFiles());
    walk("/Music");
    EXPECT_EQ(1, liveFiles());
}

TEST_F(TreeWalkSurvivalTest, manyEqualRowsDoNotUpsetTheSorting)
{
    volume.makeFolder("Music/Rock");
    walk("/Music");
    change("with recursive n(i) as (select 1000 union all select i+1 from n where i<1100) insert into Folders select "
           "n.i, parent_id, path, name, category, created_time, modified_time, 0, 0, 0, 0, 1 from Folders, n where "
           "name='Rock'");
    walk("/Music");
    EXPECT_EQ(0, timesLoggedFrom("Got an exception"));
    walk("/Music");
    EXPECT_EQ("1\n", query("select count(*) from Folders where name='Rock' and is_deleted=0"));
}

TEST_F(TreeWalkSurvivalTest, nextWalkTakesToTheLogAgain)
{
    destroy();
    sqlite3* connection = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(dbPath().c_str(), &connection));
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> reader(connection, sqlite3_close);
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(connection, "begin; select count(*) from Files", nullptr, nullptr, nullptr));
    manager = std::make_unique<VolumeManager>();
    initializeQuietly();
    ASSERT_EQ("delete\n", query("pragma journal_mode")); // the reader is in the way
    reader.reset();
    walk("/Music");
    EXPECT_EQ("wal\n", query("pragma journal_mode"));
}

} // namespace
