#include "volume/HandlerTest.h"

#include <unistd.h>

namespace {

// New files

TEST_F(FileChangesTest, newFileGetsARowWithWhatTheDiskSays)
{
    put("Music/b.mp3", "1234567", 200);
    EXPECT_EQ("", newFile("/Music/b.mp3"));
    EXPECT_EQ(before + "file 2 'b.mp3' in 1 /Music/b.mp3 2 7 200 written\n", rows());
    EXPECT_EQ("50\n" + changeTime("Music/b.mp3"), createdTimes());
    EXPECT_EQ(nothing, loggedLines());
}

TEST_F(FileChangesTest, newFileHasTheCategoryOfItsLastExtension)
{
    for (const std::string file : { "film.mp3.avi", "photo.JPG", ".mp3", "none", "stop.", "x.mp3.", "x.unheardof" }) {
        put("Films/" + file, "", 1);
        newFile("/Films/" + file);
    }
    EXPECT_EQ("film.mp3.avi 1\nphoto.JPG 3\n.mp3 2\nnone 4\nstop. 4\nx.mp3. 4\nx.unheardof 4\n",
        query("select name, category from Files where file_id > 1 order by file_id"));
}

TEST_F(FileChangesTest, newFileWithALiveRowGetsItsTimeAndSizeAndNothingElse)
{
    change("update Files set category = 9");
    put("Music/a.mp3", "1234567", 200);
    EXPECT_EQ("", newFile("/Music/a.mp3"));
    EXPECT_EQ(folderRows + "file 1 'a.mp3' in 1 /Music/a.mp3 9 7 200 written\n", rows());
    EXPECT_EQ("50\n", createdTimes());
    EXPECT_EQ(nothing, loggedLines());
}

TEST_F(FileChangesTest, newFileWithALiveRowIsWrittenAlsoWhenNothingChanged)
{
    newFile("/Music/a.mp3");
    EXPECT_EQ(folderRows + "file 1 'a.mp3' in 1 /Music/a.mp3 2 5 100 written\n", rows());
}

TEST_F(FileChangesTest, newFileBringsItsDeletedRowBackToLife)
{
    change("update Files set is_deleted = 1, category = 9, modified_time = 1");
    newFile("/Music/a.mp3");
    EXPECT_EQ(folderRows + "file 1 'a.mp3' in 1 /Music/a.mp3 2 5 100 written\n", rows());
    EXPECT_EQ(changeTime("Music/a.mp3"), createdTimes());
    EXPECT_EQ(
        std::vector<LogLine> { info("Row for file /Music/a.mp3 exists in the DB so updating it\n") }, loggedLines());
}

TEST_F(FileChangesTest, newFileInAnUnknownFolderMakesItsRowAndIsFiledUnderWhatTheClimbEndedWith)
{
    put("Music/Rock/Live/c.mp3", "1", 300);
    put("Music/Rock/b.mp3", "1", 200);
    newFile("/Music/Rock/b.mp3"); // the look-up of the parent has used up the root
    newFile("/Music/Rock/Live/c.mp3");
    EXPECT_EQ(folderRows
            + "folder 3 'Rock' in 1 /Music/Rock 0 written\nfolder 4 'Live' in 3 /Music/Rock/Live 0 written\n" + fileA
            + "file 2 'b.mp3' in 0 /Music/Rock/b.mp3 2 1 200 written\n"
            + "file 3 'c.mp3' in 1 /Music/Rock/Live/c.mp3 2 1 300 written\n",
        rows());
    EXPECT_EQ(nothing, loggedLines());
}

TEST_F(FileChangesTest, sizeAbove4GiBIsStoredWhole)
{
    put("Films/large.avi", "", 1);
    ASSERT_EQ(0, truncate64(volume.path("Films/large.avi").c_str(), 4294967301));
    newFile("/Films/large.avi");
    EXPECT_EQ("4294967301\n", query("select size from Files where file_id = 2"));
    newFile("/Films/large.avi");
    EXPECT_EQ("4294967301\n", query("select size from Files where file_id = 2"));
}

// Modified files

TEST_F(FileChangesTest, modifiedFileThatIsUnknownIsLoggedAndNotInserted)
{
    put("Music/b.mp3", "1", 200);
    EXPECT_EQ("", modifyFile("/Music/b.mp3"));
    EXPECT_EQ(before, rows());
    EXPECT_EQ(
        std::vector<LogLine> { err("There is an error condition here for " + root + "/Music b.mp3\n") }, loggedLines());
}

TEST_F(FileChangesTest, modifiedFileWithADeletedRowIsUnknown)
{
    change("update Files set is_deleted = 1");
    modifyFile("/Music/a.mp3");
    EXPECT_EQ(folderRows + "file 1 'a.mp3' in 1 /Music/a.mp3 2 5 100 deleted\n", rows());
    EXPECT_EQ(
        std::vector<LogLine> { err("There is an error condition here for " + root + "/Music a.mp3\n") }, loggedLines());
}

TEST_F(FileChangesTest, modifiedFileWithItsOldTimeAndSizeIsNotWritten)
{
    put("Music/a.mp3", "other", 100);
    EXPECT_EQ("", modifyFile("/Music/a.mp3"));
    EXPECT_EQ(before, rows());
    EXPECT_EQ(nothing, loggedLines());
}

TEST_F(FileChangesTest, modifiedFileWithAnotherTimeIsWritten)
{
    change("update Files set category = 9");
    put("Music/a.mp3", "12345", 99);
    EXPECT_EQ("", modifyFile("/Music/a.mp3"));
    EXPECT_EQ(folderRows + "file 1 'a.mp3' in 1 /Music/a.mp3 9 5 99 written\n", rows());
    EXPECT_EQ("50\n", createdTimes());
    EXPECT_EQ(nothing, loggedLines());
}

TEST_F(FileChangesTest, modifiedFileWithAnotherSizeIsWritten)
{
    put("Music/a.mp3", "1234567", 100);
    modifyFile("/Music/a.mp3");
    EXPECT_EQ(folderRows + "file 1 'a.mp3' in 1 /Music/a.mp3 2 7 100 written\n", rows());
}

TEST_F(FileChangesTest, modifiedFileOf2GiBIsWrittenEachTime)
{
    ASSERT_EQ(0, truncate64(volume.path("Music/a.mp3").c_str(), 2147483648));
    setModifiedTime(volume.path("Music/a.mp3"), 100);
    for (int time = 0; time < 2; ++time) { // the row reads as -2147483648
        ageRows();
        modifyFile("/Music/a.mp3");
        EXPECT_EQ(folderRows + "file 1 'a.mp3' in 1 /Music/a.mp3 2 2147483648 100 written\n", rows());
    }
}

TEST_F(FileChangesTest, timesAreComparedAsTheyAreStored)
{
    setModifiedTime(volume.path("Music/a.mp3"), 4294967396); // 100 in 32 bits
    modifyFile("/Music/a.mp3");
    EXPECT_EQ(before, rows());
}

// What is not there as a file

class FileChangesOfNoFileTest : public FileChangesTest, public testing::WithParamInterface<const char*> {
protected:
    FileChangesOfNoFileTest()
    {
        put("Films/other.mp3", "1", 1);
        const std::string kind = GetParam();
        for (const std::string below : { "Music/a.mp3", "Music/b.mp3" }) {
            volume.remove(below);
            if (kind == "folder")
                volume.makeFolder(below);
            if (kind == "link")
                replaceByLink(below, "Films/other.mp3");
        }
    }
};

INSTANTIATE_TEST_SUITE_P(FileChanges, FileChangesOfNoFileTest, testing::Values("gone", "folder", "link"),
    [](const testing::TestParamInfo<const char*>& kind) { return std::string(kind.param); });

TEST_P(FileChangesOfNoFileTest, isIgnoredWhenNewOrModified)
{
    for (const std::string at : { "/Music/a.mp3", "/Music/b.mp3" }) {
        EXPECT_EQ("", newFile(at));
        EXPECT_EQ(nothing, loggedLines());
        EXPECT_EQ("", modifyFile(at));
        EXPECT_EQ(nothing, loggedLines());
    }
    EXPECT_EQ(before, rows());
}

TEST_P(FileChangesOfNoFileTest, isReportedAsTheGoalOfAMoveAndTheSourceStays)
{
    for (const std::string from : { "/Music/a.mp3", "/Music/unknown.mp3" }) {
        EXPECT_EQ("", moveFile(from, "/Music/b.mp3"));
        EXPECT_EQ(
            std::vector<LogLine> { err("Error!!! New file b.mp3 does not exist on the filesystem\n") }, loggedLines());
    }
    EXPECT_EQ(before, rows());
}

TEST_P(FileChangesOfNoFileTest, canBeDeleted)
{
    EXPECT_EQ("Deleting file 1\n", deleteFile("/Music/a.mp3"));
    EXPECT_EQ(folderRows + "file 1 'a.mp3' in 1 /Music/a.mp3 2 5 100 deleted written\n", rows());
}

// Deleted files

TEST_F(FileChangesTest, deletedFileIsMarkedWithoutALookAtTheDisk)
{
    ASSERT_TRUE(volume.exists("Music/a.mp3"));
    EXPECT_EQ("Deleting file 1\n", deleteFile("/Music/a.mp3"));
    EXPECT_EQ(folderRows + "file 1 'a.mp3' in 1 /Music/a.mp3 2 5 100 deleted written\n", rows());
    EXPECT_EQ(nothing, loggedLines());
}

TEST_F(FileChangesTest, deletingAFileWithoutALiveRowDoesNothing)
{
    EXPECT_EQ("", deleteFile("/Music/b.mp3"));
    EXPECT_EQ(before, rows());
    change("update Files set is_deleted = 1");
    EXPECT_EQ("", deleteFile("/Music/a.mp3"));
    EXPECT_EQ(folderRows + "file 1 'a.mp3' in 1 /Music/a.mp3 2 5 100 deleted\n", rows());
    EXPECT_EQ(nothing, loggedLines());
}

// Moved files

TEST_F(FileChangesTest, movedFileGetsANewRowWithTheCategoryOfItsNewName)
{
    rename("/Music/a.mp3", "/Films/b.avi");
    put("Films/b.avi", "1234567", 200); // the row tells what is carried over, the next event or walk what changed since
    EXPECT_EQ("Deleting file 1\n", moveFile("/Music/a.mp3", "/Films/b.avi"));
    EXPECT_EQ(folderRows + "file 1 'a.mp3' in 1 /Music/a.mp3 2 5 100 deleted written\n"
            + "file 2 'b.avi' in 2 /Films/b.avi 1 5 100 written\n",
        rows());
    EXPECT_EQ("50\n50\n", createdTimes());
    EXPECT_EQ(nothing, loggedLines());
}

TEST_F(FileChangesTest, movedFileWithoutALiveSourceRowIsANewFile)
{
    put("Films/b.avi", "1234567", 200);
    const LogLine inserted
        = info("The old file /Music/x.mp3 does not exist, so inserting a new one " + root + "/Films/b.avi \n");
    EXPECT_EQ("", moveFile("/Music/x.mp3", "/Films/b.avi"));
    EXPECT_EQ(before + "file 2 'b.avi' in 2 /Films/b.avi 1 7 200 written\n", rows());
    EXPECT_EQ("50\n" + changeTime("Films/b.avi"), createdTimes());
    EXPECT_EQ(std::vector<LogLine> { inserted }, loggedLines());

    ageRows();
    // Also when there is nothing to insert, because the new file has a live row.
    moveFile("/Music/x.mp3", "/Films/b.avi");
    EXPECT_EQ(before + "file 2 'b.avi' in 2 /Films/b.avi 1 7 200\n", rows());
    EXPECT_EQ(std::vector<LogLine> { inserted }, loggedLines());
}

TEST_F(FileChangesTest, movedFileWithADeletedSourceRowIsANewFile)
{
    change("update Files set is_deleted = 1");
    put("Music/b.mp3", "1", 200);
    EXPECT_EQ("", moveFile("/Music/a.mp3", "/Music/b.mp3"));
    EXPECT_EQ(folderRows + "file 1 'a.mp3' in 1 /Music/a.mp3 2 5 100 deleted\n"
            + "file 2 'b.mp3' in 1 /Music/b.mp3 2 1 200 written\n",
        rows());
}

TEST_F(FileChangesTest, moveOntoALiveRowChangesNothing)
{
    put("Music/b.mp3", "1", 200);
    newFile("/Music/b.mp3");
    ageRows();
    EXPECT_EQ("", moveFile("/Music/a.mp3", "/Music/b.mp3"));
    EXPECT_EQ(before + "file 2 'b.mp3' in 1 /Music/b.mp3 2 1 200\n", rows());
    EXPECT_EQ(nothing, loggedLines());
}

TEST_F(FileChangesTest, moveOntoADeletedRowBringsItBackToLife)
{
    put("Films/a.mp3", "12345", 100);
    newFile("/Films/a.mp3");
    deleteFile("/Films/a.mp3");
    ageRows();
    EXPECT_EQ("Deleting file 1\n", moveFile("/Music/a.mp3", "/Films/a.mp3"));
    EXPECT_EQ(folderRows + "file 1 'a.mp3' in 1 /Music/a.mp3 2 5 100 deleted written\n"
            + "file 2 'a.mp3' in 2 /Films/a.mp3 2 5 100 written\n",
        rows());
    EXPECT_EQ(
        std::vector<LogLine> { info("Row for file /Films/a.mp3 exists in the DB so updating it\n") }, loggedLines());
}

TEST_F(FileChangesTest, moveOutOfAFolderWithoutALiveRowChangesNothing)
{
    change("update Folders set is_deleted = 1 where folder_id = 1");
    rename("/Music/a.mp3", "/Films/a.mp3");
    EXPECT_EQ("", moveFile("/Music/a.mp3", "/Films/a.mp3"));
    EXPECT_EQ("folder 1 'Music' in -1 /Music 10 deleted\nfolder 2 'Films' in -1 /Films 20\n" + fileA, rows());
    EXPECT_EQ(nothing, loggedLines());
}

TEST_F(FileChangesTest, moveIntoAnUnknownFolderMakesItsRowFirst)
{
    volume.makeFolder("Films/New");
    rename("/Music/a.mp3", "/Films/New/a.mp3");
    moveFile("/Music/a.mp3", "/Films/New/a.mp3");
    // insertFile(), for which the folder is there by now, files the row; the id that moveFile() holds is not the one.
    EXPECT_EQ(folderRows + "folder 3 'New' in 2 /Films/New 0 written\n"
            + "file 1 'a.mp3' in 1 /Music/a.mp3 2 5 100 deleted written\n"
            + "file 2 'a.mp3' in 3 /Films/New/a.mp3 2 5 100 written\n",
        rows());
}

TEST_F(FileChangesTest, namesPassUnchanged)
{
    const std::string at = "/Music/" + oddName;
    EXPECT_EQ("", modifyFile(at)); // not there yet
    put("Music/" + oddName, "1", 200);
    modifyFile(at);
    EXPECT_EQ(std::vector<LogLine> { err("There is an error condition here for " + root + "/Music " + oddName + "\n") },
        loggedLines());
    newFile(at);
    EXPECT_EQ(before + "file 2 '" + oddName + "' in 1 " + at + " 2 1 200 written\n", rows());
    ageRows();
    put("Music/" + oddName, "12", 200);
    modifyFile(at);
    EXPECT_EQ(before + "file 2 '" + oddName + "' in 1 " + at + " 2 2 200 written\n", rows());
    const std::string moved = "/Films/moved" + oddName;
    rename(at, moved);
    moveFile(at, moved);
    deleteFile(moved);
    EXPECT_EQ(before + "file 2 '" + oddName + "' in 1 " + at + " 2 2 200 deleted written\n" + "file 3 'moved" + oddName
            + "' in 2 " + moved + " 2 2 200 deleted written\n",
        rows());
    moveFile(at, moved);
    EXPECT_EQ(info("The old file " + at + " does not exist, so inserting a new one " + root + moved + " \n"),
        loggedLines().back());
    moveFile(at, at);
    EXPECT_EQ(std::vector<LogLine> { err("Error!!! New file " + oddName + " does not exist on the filesystem\n") },
        loggedLines());
}

TEST_F(FileChangesTest, folderShorterThanTheVolumesPathMeansTheVolumeItself)
{
    std::string above = "/";
    manager->handleDeleteFile(above, "a.mp3");
    EXPECT_EQ(before, rows());
    EXPECT_EQ(nothing, loggedLines());
}

// The lock

TEST_F(FileChangesTest, catalogueWorkIsDoneUnderTheLock)
{
    put("Music/b.mp3", "1", 200);
    put("Films/c.mp3", "1", 200);
    const LockTrace trace(*manager);
    newFile("/Music/b.mp3");
    newFile("/Music/b.mp3");
    modifyFile("/Music/a.mp3");
    modifyFile("/Films/c.mp3"); // unknown
    moveFile("/Music/b.mp3", "/Films/c.mp3");
    moveFile("/Music/x.mp3", "/Films/c.mp3"); // unknown
    deleteFile("/Music/a.mp3");
    EXPECT_EQ("(s)(s)(s)(s)(s)(s)(s)", trace.text());
}

TEST_F(FileChangesTest, lockIsTakenAndReleasedAlsoForWhatIsGone)
{
    const LockTrace trace(*manager);
    newFile("/Music/gone");
    modifyFile("/Music/gone");
    moveFile("/Music/a.mp3", "/Music/gone");
    EXPECT_EQ("()()()", trace.text());
}

TEST_F(FileChangesTest, diskIsLookedAtUnderTheLock)
{
    rename("/Music/a.mp3", "/Music/moved.mp3");
    const auto whileWaiting = [this](const std::function<void()>& event) {
        put("Music/a.mp3", "1", 200);
        const OnSemWait vanish([this](sem_t*) {
            volume.remove("Music/a.mp3");
            return false;
        });
        event();
    };
    whileWaiting([this] { newFile("/Music/a.mp3"); });
    EXPECT_EQ(nothing, loggedLines());
    whileWaiting([this] { modifyFile("/Music/a.mp3"); });
    EXPECT_EQ(nothing, loggedLines());
    whileWaiting([this] { moveFile("/Music/moved.mp3", "/Music/a.mp3"); });
    EXPECT_EQ(
        std::vector<LogLine> { err("Error!!! New file a.mp3 does not exist on the filesystem\n") }, loggedLines());
    EXPECT_EQ(before, rows());
}

} // namespace
