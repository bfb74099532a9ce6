#include "SystemHooks.h"
#include "VolumeTest.h"

#include "core/SignalMask.h"
#include "support/SqlTexts.h"

#include <unistd.h>

#include <csignal>

namespace {

/// Takes the signal, which is blocked, without its handler. False when it is not pending.
bool takePending(int signal)
{
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, signal);
    const timespec now = {};
    return sigtimedwait(&wanted, nullptr, &now) == signal;
}

/// A stop in the middle of a walk: what was begun is kept, what was not yet looked at is not taken for gone.
class TreeWalkStopTest : public VolumeTest {
protected:
    TreeWalkStopTest() { initializeQuietly(); }

    /// Asks for the stop when that many entries of the folder were read, the two dots not counted.
    OnReaddir::Hook stopAfter(const std::string& below, int entries)
    {
        return [this, below, left = entries](const std::string& folder, dirent* entry) mutable {
            if (folder == root + below && entry != nullptr && entry->d_name[0] != '.' && --left == 0)
                manager->requestStop();
            return entry;
        };
    }

    /// Asks for the stop at the end of the folder.
    OnReaddir::Hook stopAtTheEndOf(const std::string& below)
    {
        return [this, below](const std::string& folder, dirent* entry) {
            if (folder == root + below && entry == nullptr)
                manager->requestStop();
            return entry;
        };
    }

    /// Asks for the stop before that many statements with the text have run.
    OnStatement::Hook stopAtStatement(const std::string& text, int count = 1)
    {
        return [this, text, left = count](const std::string& sql, sqlite3*) mutable {
            if (sql.find(text) != std::string::npos && --left == 0)
                manager->requestStop();
        };
    }

    /// A walk on the thread that is stopped when it is about to delete its first folder.
    void walkUntilAFolderIsDeleted()
    {
        const OnStatement stop(stopAtStatement(sql::markAFolder));
        walkOnThread();
    }

    void startAnew()
    {
        destroy();
        manager = std::make_unique<VolumeManager>();
        initializeQuietly();
    }
};

TEST_F(TreeWalkStopTest, beforeTheWalkLeavesOnlyTheLastLines)
{
    volume.makeFolder("Music");
    manager->requestStop();
    walk("/Music");
    EXPECT_EQ(4U, loggedLines().size());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Finished walk. Walk started at " + root + "/Music\n"));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 0/0\n"));
    EXPECT_EQ("", folders());
}

TEST_F(TreeWalkStopTest, endsTheReadingOfTheFolderAndKeepsItsRow)
{
    for (const char* file : { "Music/a", "Music/b", "Music/c" })
        volume.writeFile(file);
    {
        const OnReaddir stop(stopAfter("/Music", 2));
        walk("/Music");
    }
    EXPECT_EQ("[/Music] root\n", folders()); // committed
    EXPECT_EQ("", files());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 1/2\n"));
    expectSummary("/Music", 0, 0, 0, 0);
}

TEST_F(TreeWalkStopTest, takesNothingForGoneThatWasNotRead)
{
    for (const char* file : { "Music/a", "Music/b", "Music/c" })
        volume.writeFile(file);
    volume.makeFolder("Music/x");
    volume.makeFolder("Music/y");
    walk("/Music");
    ageRows();
    {
        const OnReaddir stop(stopAfter("/Music", 1));
        walk("/Music");
    }
    EXPECT_EQ("", writtenRows());
    EXPECT_EQ("[/Music/a] 4 in [/Music]\n[/Music/b] 4 in [/Music]\n[/Music/c] 4 in [/Music]\n", files());
}

TEST_F(TreeWalkStopTest, mergesNothingMore)
{
    volume.writeFile("Music/a");
    volume.makeFolder("Music/x");
    walk("/Music");
    volume.remove("Music/a");
    volume.remove("Music/x");
    volume.writeFile("Music/b");
    {
        const OnReaddir stop(stopAtTheEndOf("/Music"));
        walk("/Music");
    }
    EXPECT_EQ("[/Music] root\n[/Music/x] in [/Music]\n", folders());
    EXPECT_EQ("[/Music/a] 4 in [/Music]\n", files());
    expectSummary("/Music", 0, 0, 0, 0);
}

TEST_F(TreeWalkStopTest, dropsTheRestOfTheQueue)
{
    volume.makeFolder("Music/x/y");
    {
        const OnReaddir stop(stopAtTheEndOf("/Music"));
        walk("/Music");
    }
    EXPECT_EQ("[/Music] root\n", folders());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 1/0\n"));
    EXPECT_EQ(1, timesLoggedFrom("Finished walk."));
}

TEST_F(TreeWalkStopTest, ofTheThreadEndsEveryCrawlPathAtOnce)
{
    configure({ "/a", "/b" });
    volume.makeFolder("a/x");
    volume.makeFolder("b");
    {
        const OnReaddir stop(stopAtTheEndOf("/a"));
        walkOnThread();
        ASSERT_TRUE(waitUntil([] { return timesLoggedFrom("Actively watching") == 2; }));
        destroy();
    }
    EXPECT_EQ("[/a] root\n", folders());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Finished walk. Walk started at " + root + "/a\n"));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Finished walk. Walk started at " + root + "/b\n"));
}

TEST_F(TreeWalkStopTest, nextStartPutsEverythingRight)
{
    for (const char* file : { "Music/a", "Music/b/c", "Music/d/e" })
        volume.writeFile(file);
    {
        const OnReaddir stop(stopAtTheEndOf("/Music"));
        walk("/Music");
    }
    startAnew();
    walk("/Music");
    EXPECT_EQ("[/Music] root\n[/Music/b] in [/Music]\n[/Music/d] in [/Music]\n", folders());
    EXPECT_EQ("[/Music/a] 4 in [/Music]\n[/Music/b/c] 4 in [/Music/b]\n[/Music/d/e] 4 in [/Music/d]\n", files());
}

TEST_F(TreeWalkStopTest, betweenTwoFilesKeepsWhatWasMerged)
{
    for (const char* file : { "Music/a", "Music/b", "Music/c", "Music/d" })
        volume.writeFile(file);
    {
        const OnStatement stop(stopAtStatement(sql::addFile, 2));
        walk("/Music");
    }
    EXPECT_EQ("[/Music/a] 4 in [/Music]\n[/Music/b] 4 in [/Music]\n", files());
    expectSummary("/Music", 2, 0, 0, 0);
}

TEST_F(TreeWalkStopTest, betweenTwoVanishedFoldersKeepsWhatWasMerged)
{
    for (const char* folder : { "Music/a", "Music/b", "Music/c" })
        volume.makeFolder(folder);
    walk("/Music");
    for (const char* folder : { "Music/a", "Music/b", "Music/c" })
        volume.remove(folder);
    {
        const OnStatement stop(stopAtStatement(sql::markAFolder));
        walk("/Music");
    }
    EXPECT_EQ(
        "[/Music] root\n[/Music/a] in [/Music] deleted\n[/Music/b] in [/Music]\n[/Music/c] in [/Music]\n", folders());
    expectSummary("/Music", 0, 0, 0, 1);
}

TEST_F(TreeWalkStopTest, insideTheDeletionOfAVanishedFolderUndoesTheFolderInSilence)
{
    volume.writeFile("Music/x/1/a.mp3");
    volume.makeFolder("Music/x/2");
    walk("/Music");
    volume.remove("Music/x");
    volume.writeFile("Music/b.mp3");
    ageRows();
    {
        const OnStatement stop(stopAtStatement(sql::markAFolder));
        walk("/Music");
    }
    EXPECT_EQ("", writtenRows());
    EXPECT_EQ("[/Music/x/1/a.mp3] 2 in [/Music/x/1]\n", files());
    EXPECT_EQ(0, timesLoggedFrom("Got an exception")); // the stop is no failure
    EXPECT_EQ(0, timesLoggedFrom("For folder"));
    EXPECT_EQ(1, timesLoggedFrom("Finished walk."));
    startAnew();
    walk("/Music");
    EXPECT_EQ("[/Music] root\n[/Music/x] in [/Music] deleted\n[/Music/x/1] in [/Music/x] deleted\n"
              "[/Music/x/2] in [/Music/x] deleted\n",
        folders());
    EXPECT_EQ("[/Music/b.mp3] 2 in [/Music]\n[/Music/x/1/a.mp3] 2 in [/Music/x/1] deleted\n", files());
}

/// The handler of the signal begins between the two moments at which the walk asks for it: the catalogue gives the
/// deletion up, and the folder's exception is to be logged or not.
TEST_F(TreeWalkStopTest, bySignalIsNoFailureEitherWhenTheSignalIsJustBeingServed)
{
    volume.makeFolder("Music/x/1");
    volume.makeFolder("Music/x/2");
    walk("/Music");
    volume.remove("Music/x");
    ageRows();
    const ServedSignals blocked(ServedSignals::block);
    bool served = false;
    {
        const OnStatement stop([&](const std::string& text, sqlite3*) {
            if (text.find(sql::markAFolder) != std::string::npos)
                kill(getpid(), SIGTERM);
            if (text == "ROLLBACK")
                served = takePending(SIGTERM);
        });
        walk("/Music");
    }
    EXPECT_TRUE(served);
    EXPECT_EQ("", writtenRows());
    EXPECT_EQ(0, timesLoggedFrom("Got an exception"));
    EXPECT_EQ(1, timesLoggedFrom("Finished walk."));
}

TEST_F(TreeWalkStopTest, duringTheRemovalOfTopLevelFoldersLeavesNothingLiveBehind)
{
    volume.writeFile("c/x/y/z.mp3");
    volume.makeFolder("a");
    walk("/c");
    configure({ "/a" });
    walkUntilAFolderIsDeleted();
    startAnew();
    walkOnThread();
    EXPECT_EQ("[/a] root\n[/c] root deleted\n[/c/x] in [/c] deleted\n[/c/x/y] in [/c/x] deleted\n", folders());
    EXPECT_EQ("[/c/x/y/z.mp3] 2 in [/c/x/y] deleted\n", files());
}

TEST_F(TreeWalkStopTest, betweenTwoTopLevelFoldersKeepsTheSecond)
{
    catalogueTopLevelFolders({ "a", "b" });
    configure({ "/c" });
    walkUntilAFolderIsDeleted();
    EXPECT_EQ(1, timesLoggedFrom("Checking if the folder"));
    EXPECT_EQ("[/a] root deleted\n[/b] root\n", folders());
}

TEST_F(TreeWalkStopTest, duringTheRemovalOfAFolderOfManyFilesLeavesNothingLiveBehind)
{
    for (const std::string place : { "c", "y" }) { // in the top-level folder itself, and deep below it
        volume.makeFolder("c/x/y");
        volume.makeFolder("a");
        configure({});
        walk("/c");
        change(
            "with recursive n(i) as (select 1 union all select i+1 from n where i<30000) insert into Files (folder_id,"
            " path, name, category, size, modified_time, created_time, is_deleted, last_updated_time) select"
            " f.folder_id, f.path||'/'||i, i, 4, 1, 1, 1, 0, 1 from Folders f, n where f.name='"
            + place + "'");
        configure({ "/a" });
        walkUntilAFolderIsDeleted();
        startAnew();
        walkOnThread();
        EXPECT_EQ("[/a]\n", query("select '['||path||']' from Folders where is_deleted=0")) << place;
        EXPECT_EQ(0, liveFiles()) << place;
    }
}

} // namespace
