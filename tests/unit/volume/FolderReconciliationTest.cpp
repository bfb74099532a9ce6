#include "SystemHooks.h"
#include "VolumeTest.h"

#include "support/SqlTexts.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/// One folder, /Music, whose content on disk and in the catalogue differ in some way.
class FolderReconciliationTest : public VolumeTest {
protected:
    FolderReconciliationTest()
    {
        volume.makeFolder("Music");
        initializeQuietly();
    }

    void makeFiles(const std::vector<std::string>& names) const
    {
        for (const std::string& file : names)
            volume.writeFile("Music/" + file);
    }

    void makeFolders(const std::vector<std::string>& names) const
    {
        for (const std::string& folder : names)
            volume.makeFolder("Music/" + folder);
    }

    /// What the walk prints for the files that it deletes is of no interest here.
    void walkQuietly()
    {
        testing::internal::CaptureStdout();
        walk("/Music");
        testing::internal::GetCapturedStdout();
    }
};

TEST_F(FolderReconciliationTest, newFilesAreInsertedAndVanishedOnesDeleted)
{
    makeFiles({ "c.txt" });
    walkQuietly();
    volume.remove("Music/c.txt");
    makeFiles({ "b.mp3", "a" });
    walkQuietly();
    EXPECT_EQ(
        "[/Music/a] 4 in [/Music]\n[/Music/b.mp3] 2 in [/Music]\n[/Music/c.txt] 4 in [/Music] deleted\n", files());
    expectSummary("/Music", 2, 1, 0, 0);
}

TEST_F(FolderReconciliationTest, filesMergeWhereverTheyStandInTheOrder)
{
    makeFiles({ "b", "d", "f", "h" });
    walkQuietly();
    expectSummary("/Music", 4, 0, 0, 0);
    for (const char* gone : { "Music/b", "Music/f", "Music/h" })
        volume.remove(gone);
    makeFiles({ "a", "c", "e", "g" });
    walkQuietly();
    expectSummary("/Music", 4, 3, 0, 0);
    EXPECT_EQ("[/Music/a] 4 in [/Music]\n[/Music/b] 4 in [/Music] deleted\n[/Music/c] 4 in [/Music]\n"
              "[/Music/d] 4 in [/Music]\n[/Music/e] 4 in [/Music]\n[/Music/f] 4 in [/Music] deleted\n"
              "[/Music/g] 4 in [/Music]\n[/Music/h] 4 in [/Music] deleted\n",
        files());
}

TEST_F(FolderReconciliationTest, secondWalkWritesNothing)
{
    makeFiles({ "a.mp3", "B.mp3", "\xC3\xA4.mp3", "\xFF", "_", "a", "a.mp", "\x01" });
    makeFolders({ "x", "X", "\xC3\xA5", "\x02", "x y", "x-y" });
    walkQuietly();
    ageRows();
    walkQuietly();
    EXPECT_EQ("", writtenRows());
    expectSummary("/Music", 0, 0, 0, 0);
}

TEST_F(FolderReconciliationTest, revivedFileKeepsItsId)
{
    makeFiles({ "a.mp3" });
    walkQuietly();
    const std::string id = query("select file_id from Files");
    volume.remove("Music/a.mp3");
    walkQuietly();
    ASSERT_EQ("[/Music/a.mp3] 2 in [/Music] deleted\n", files());
    makeFiles({ "a.mp3" });
    walkQuietly();
    EXPECT_EQ("[/Music/a.mp3] 2 in [/Music]\n", files());
    EXPECT_EQ(id, query("select file_id from Files"));
    expectSummary("/Music", 1, 0, 0, 0);
}

TEST_F(FolderReconciliationTest, vanishedFolderIsDeletedWithAllBelowItAndItsWatchEnds)
{
    makeFolders({ "Rock" });
    volume.writeFile("Music/Rock/Live/1.mp3");
    walkQuietly();
    ASSERT_EQ(3, watches());
    volume.remove("Music/Rock");
    walkQuietly();
    EXPECT_EQ(
        "[/Music] root\n[/Music/Rock] in [/Music] deleted\n[/Music/Rock/Live] in [/Music/Rock] deleted\n", folders());
    EXPECT_EQ("[/Music/Rock/Live/1.mp3] 2 in [/Music/Rock/Live] deleted\n", files());
    expectSummary("/Music", 0, 0, 0, 1);
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Removing " + root + "/Music/Rock \n")); // with a blank before the newline
    EXPECT_EQ(2, watches());                                                    // that of Live stays in the books
    EXPECT_FALSE(endsWatchOf("/Music/Rock"));
    EXPECT_TRUE(endsWatchOf("/Music/Rock/Live"));
}

TEST_F(FolderReconciliationTest, watchOfAVanishedFolderIsFoundByTheNameInTheCatalogue)
{
    makeFolders({ "Rock" });
    walkQuietly();
    change("update Folders set name='Pop' where name='Rock'");
    volume.remove("Music/Rock");
    walkQuietly();
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Removing " + root + "/Music/Pop \n"));
    EXPECT_TRUE(endsWatchOf("/Music/Rock"));
}

TEST_F(FolderReconciliationTest, newFoldersCountOnlyBeforeACataloguedSibling)
{
    makeFolders({ "m" });
    walkQuietly();
    expectSummary("/Music", 0, 0, 0, 0); // the first of all follows no catalogued one either
    makeFolders({ "a", "b", "x", "z" });
    walkQuietly();
    expectSummary("/Music", 0, 0, 2, 0);
    EXPECT_EQ("[/Music] root\n[/Music/a] in [/Music]\n[/Music/b] in [/Music]\n[/Music/m] in [/Music]\n"
              "[/Music/x] in [/Music]\n[/Music/z] in [/Music]\n",
        folders());
}

TEST_F(FolderReconciliationTest, foldersMergeWhereverTheyStandInTheOrder)
{
    makeFolders({ "b", "d", "f", "h" });
    walkQuietly();
    for (const char* gone : { "Music/b", "Music/f", "Music/h" })
        volume.remove(gone);
    makeFolders({ "a", "c", "e", "g" });
    walkQuietly();
    expectSummary("/Music", 0, 0, 4, 3);
    EXPECT_EQ("[/Music] root\n[/Music/a] in [/Music]\n[/Music/b] in [/Music] deleted\n[/Music/c] in [/Music]\n"
              "[/Music/d] in [/Music]\n[/Music/e] in [/Music]\n[/Music/f] in [/Music] deleted\n"
              "[/Music/g] in [/Music]\n[/Music/h] in [/Music] deleted\n",
        folders());
}

TEST_F(FolderReconciliationTest, fileThatBecameAFolderAndFolderThatBecameAFile)
{
    makeFiles({ "one" });
    makeFolders({ "two" });
    walkQuietly();
    volume.remove("Music/one");
    volume.remove("Music/two");
    makeFiles({ "two" });
    makeFolders({ "one" });
    walkQuietly();
    expectSummary("/Music", 1, 1, 1, 1);
    EXPECT_EQ("[/Music] root\n[/Music/one] in [/Music]\n[/Music/two] in [/Music] deleted\n", folders());
    EXPECT_EQ("[/Music/one] 4 in [/Music] deleted\n[/Music/two] 4 in [/Music]\n", files());
}

TEST_F(FolderReconciliationTest, everyOtherTypeIsIgnored)
{
    volume.writeFile("outside/a.mp3");
    ASSERT_EQ(0, symlink(volume.path("outside").c_str(), volume.path("Music/folder").c_str()));
    ASSERT_EQ(0, symlink(volume.path("outside/a.mp3").c_str(), volume.path("Music/file.mp3").c_str()));
    ASSERT_EQ(0, symlink("nowhere", volume.path("Music/dangling.mp3").c_str()));
    ASSERT_EQ(0, mkfifo(volume.path("Music/pipe.mp3").c_str(), 0644));
    walkQuietly();
    EXPECT_EQ("[/Music] root\n", folders());
    EXPECT_EQ("", files());
    EXPECT_EQ(1, watches());
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 1/0\n"));
}

TEST_F(FolderReconciliationTest, entryWithoutATypeIsIgnoredAndNotLookedUp)
{
    makeFiles({ "a.mp3" });
    makeFolders({ "Rock" });
    const OnReaddir forget([](const std::string&, dirent* entry) {
        if (entry != nullptr)
            entry->d_type = DT_UNKNOWN;
        return entry;
    });
    walkQuietly();
    EXPECT_EQ("[/Music] root\n", folders());
    EXPECT_EQ("", files());
}

TEST_F(FolderReconciliationTest, entryWithoutANameIsIgnored)
{
    dirent nameless = {};
    nameless.d_type = DT_DIR;
    int reads = 0;
    makeFiles({ "a.mp3" });
    const OnReaddir lose([&](const std::string&, dirent* entry) { return ++reads == 1 ? &nameless : entry; });
    walkQuietly();
    EXPECT_EQ("[/Music] root\n", folders());
    EXPECT_EQ(1, timesLoggedFrom("For folder"));
}

TEST_F(FolderReconciliationTest, hiddenEntriesAreCataloguedLikeOthers)
{
    makeFiles({ ".hidden", "...", "..a" });
    makeFolders({ ".Rock" });
    walkQuietly();
    EXPECT_EQ("[/Music] root\n[/Music/.Rock] in [/Music]\n", folders());
    EXPECT_EQ("[/Music/...] 4 in [/Music]\n[/Music/..a] 4 in [/Music]\n[/Music/.hidden] 4 in [/Music]\n", files());
}

TEST_F(FolderReconciliationTest, eachSubfolderCostsOneMoreLookUp)
{
    makeFolders({ "a", "b", "c" });
    walkQuietly();
    const StatementCount lookUps(sql::lookUpLiveFolder);
    walkQuietly();
    // Each of the 4 folders for its own row and once more for its lists, and /Music again at each of its subfolders.
    EXPECT_EQ(4 * 2 + 3, lookUps.count());
}

TEST_F(FolderReconciliationTest, folderThatMovesOnceItIsOpenIsReconciledAsItWas)
{
    makeFiles({ "a.mp3", "b.mp3" });
    const OnReaddir move([this](const std::string&, dirent* entry) {
        rename(volume.path("Music").c_str(), volume.path("Moved").c_str()); // once: then it is gone
        return entry;
    });
    walkQuietly();
    EXPECT_EQ("[/Music/a.mp3] 2 in [/Music]\n[/Music/b.mp3] 2 in [/Music]\n", files());
}

TEST_F(FolderReconciliationTest, folderIsWatchedBeforeItIsRead)
{
    makeFiles({ "a.mp3" });
    int watchesAtTheRead = 0;
    const OnReaddir look([&](const std::string&, dirent* entry) {
        watchesAtTheRead = watches();
        return entry;
    });
    walkQuietly();
    EXPECT_EQ(1, watchesAtTheRead);
}

TEST_F(FolderReconciliationTest, folderThatCannotBeOpenedKeepsItsRowsAndIsWatched)
{
    makeFiles({ "a.mp3" });
    makeFolders({ "Rock" });
    walkQuietly();
    volume.remove("Music");
    // A socket has the bit that tells a folder, and cannot be opened.
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    volume.path("Music").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(0, bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    close(descriptor);
    walkQuietly();
    EXPECT_EQ("[/Music] root\n[/Music/Rock] in [/Music]\n", folders());
    EXPECT_EQ("[/Music/a.mp3] 2 in [/Music]\n", files());
    EXPECT_EQ(3, watches());
    expectSummary("/Music", 0, 0, 0, 0);
    EXPECT_EQ(7U, loggedLines().size());
}

} // namespace
