#include "VolumeTest.h"

#include "SystemHooks.h"

#include "support/SqlTexts.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/// The two checks of a single entry against its row.
class EntryChecksTest : public VolumeTest {
protected:
    EntryChecksTest()
    {
        volume.makeFolder("Music");
        initializeQuietly();
        walk("/Music");
        clearLog();
    }

    bool checkFile(const std::string& file)
    {
        return manager->checkAndUpdateFileEntryInTheDB(file, volume.path("Music/" + file));
    }

    bool checkFolder(const std::string& below)
    {
        return manager->checkAndUpdateFolderEntryInTheDB(root + below, root + "/Music", false);
    }

    std::string fileRow() const
    {
        return query("select category, size, modified_time, created_time, is_deleted from Files");
    }

    static struct stat statusOf(const std::string& path)
    {
        struct stat status = {};
        EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
        return status;
    }
};

TEST_F(EntryChecksTest, newFileTakesItsTimesAndSizeFromTheDisk)
{
    const std::string path = volume.writeFile("Music/a.mp3", "12345");
    setModifiedTime(path, 1234567890);
    EXPECT_TRUE(checkFile("a.mp3"));
    // The time of the last change of the inode stands for the creation, on purpose.
    EXPECT_EQ("2 5 1234567890 " + std::to_string(statusOf(path).st_ctime) + " 0\n", fileRow());
}

TEST_F(EntryChecksTest, categoryComesFromWhatFollowsTheLastFullStop)
{
    for (const char* file : { "a.mp4", "b.mp3", "c.jpg", "d.txt", "e", "f.", "mp3", ".mp3", "g.tar.mp3", "h.mp3.bak",
             "i.JPG", "j.jPg", "k.mp3 ", "l..jpg" }) {
        volume.writeFile("Music/" + std::string(file));
        EXPECT_TRUE(checkFile(file));
    }
    EXPECT_EQ(".mp3 2\na.mp4 1\nb.mp3 2\nc.jpg 3\nd.txt 4\ne 4\nf. 4\ng.tar.mp3 2\nh.mp3.bak 4\ni.JPG 3\nj.jPg 4\n"
              "k.mp3  4\nl..jpg 3\nmp3 4\n",
        query("select name, category from Files order by name"));
}

TEST_F(EntryChecksTest, sameTimeAndSizeWriteNothing)
{
    volume.writeFile("Music/a.mp3", "12345");
    checkFile("a.mp3");
    ageRows();
    EXPECT_TRUE(checkFile("a.mp3"));
    EXPECT_EQ("", writtenRows());
}

TEST_F(EntryChecksTest, changedSizeAloneIsWritten)
{
    const std::string path = volume.writeFile("Music/a.mp3", "12345");
    setModifiedTime(path, 1000);
    checkFile("a.mp3");
    change("update Files set category=9, created_time=5");
    ageRows();
    volume.writeFile("Music/a.mp3", "1234567");
    setModifiedTime(path, 1000);
    EXPECT_TRUE(checkFile("a.mp3"));
    EXPECT_EQ("9 7 1000 5 0\n", fileRow()); // category and creation stay as they were
    EXPECT_EQ("[/Music/a.mp3]\n", writtenRows());
}

TEST_F(EntryChecksTest, changedTimeAloneIsWritten)
{
    const std::string path = volume.writeFile("Music/a.mp3", "12345");
    checkFile("a.mp3");
    change("update Files set category=9, created_time=5");
    setModifiedTime(path, 1000); // backwards is a change as well
    EXPECT_TRUE(checkFile("a.mp3"));
    EXPECT_EQ("9 5 1000 5 0\n", fileRow());
}

TEST_F(EntryChecksTest, fileThatIsGoneIsFalseInSilence)
{
    EXPECT_FALSE(checkFile("gone.mp3"));
    EXPECT_EQ("", files());
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(EntryChecksTest, linkInTheFilesPlaceIsNoFile)
{
    volume.writeFile("secret.mp3", "outside");
    ASSERT_EQ(0, symlink(volume.path("secret.mp3").c_str(), volume.path("Music/a.mp3").c_str()));
    EXPECT_FALSE(checkFile("a.mp3"));
    EXPECT_EQ("", files());
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(EntryChecksTest, failedFileIsLoggedWithItsName)
{
    volume.writeFile("Music/a.mp3");
    const BrokenStatement broken(sql::addFile);
    EXPECT_FALSE(checkFile("a.mp3"));
    EXPECT_EQ((std::vector<LogLine> {
                  err("insertFile() failed, handleStatus: 21\n"), err("Error in insert/update of the file a.mp3\n") }),
        loggedLines());
}

TEST_F(EntryChecksTest, fileTimesAreComparedAsTheyAreStored)
{
    const std::string path = volume.writeFile("Music/a.mp3");
    for (const auto& [seconds, stored] : { std::pair(2147483647LL, "2147483647"),
             std::pair(2147483648LL, "-2147483648"), std::pair(4102444800LL, "-192522496"), std::pair(-5LL, "-5") }) {
        setModifiedTime(path, seconds);
        EXPECT_TRUE(checkFile("a.mp3"));
        EXPECT_EQ(std::string(stored) + "\n", query("select modified_time from Files")) << seconds;
        ageRows();
        EXPECT_TRUE(checkFile("a.mp3"));
        EXPECT_EQ("", writtenRows()) << seconds;
    }
}

TEST_F(EntryChecksTest, sizesBeyond32BitsAreStoredWholeAndWrittenEachTime)
{
    const std::string path = volume.writeFile("Music/a.mp4");
    ASSERT_EQ(0, truncate(path.c_str(), 3221225472LL));
    EXPECT_TRUE(checkFile("a.mp4"));
    EXPECT_EQ("3221225472\n", query("select size from Files"));
    ageRows();
    EXPECT_TRUE(checkFile("a.mp4"));
    EXPECT_EQ("3221225472\n", query("select size from Files"));
    EXPECT_EQ("[/Music/a.mp4]\n", writtenRows()); // what is read back is cut to 32 bits
    ageRows();
    ASSERT_EQ(0, truncate(path.c_str(), 2147483647));
    checkFile("a.mp4");
    ageRows();
    EXPECT_TRUE(checkFile("a.mp4"));
    EXPECT_EQ("2147483647\n", query("select size from Files"));
    EXPECT_EQ("", writtenRows());
}

TEST_F(EntryChecksTest, newFolderTakesItsTimesFromTheDisk)
{
    const std::string path = volume.makeFolder("Music/Rock");
    setModifiedTime(path, 1234567890);
    EXPECT_TRUE(checkFolder("/Music/Rock"));
    EXPECT_EQ("1234567890 " + std::to_string(statusOf(path).st_ctime) + " -1\n",
        query("select modified_time, created_time, category from Folders where name='Rock'"));
    EXPECT_EQ("[/Music] root\n[/Music/Rock] in [/Music]\n", folders());
}

TEST_F(EntryChecksTest, folderWithTheSameTimeIsNotWritten)
{
    ageRows();
    EXPECT_TRUE(checkFolder("/Music"));
    EXPECT_EQ("", writtenRows());
}

TEST_F(EntryChecksTest, folderWithAnotherTimeGetsBothTimes)
{
    change("update Folders set created_time=5");
    setModifiedTime(volume.path("Music"), 1000);
    EXPECT_TRUE(checkFolder("/Music"));
    EXPECT_EQ("1000 " + std::to_string(statusOf(volume.path("Music")).st_ctime) + "\n",
        query("select modified_time, created_time from Folders"));
}

TEST_F(EntryChecksTest, folderTimesAreComparedAsTheyAreStored)
{
    setModifiedTime(volume.path("Music"), 4102444800);
    EXPECT_TRUE(checkFolder("/Music"));
    EXPECT_EQ("-192522496\n", query("select modified_time from Folders"));
    ageRows();
    EXPECT_TRUE(checkFolder("/Music"));
    EXPECT_EQ("", writtenRows());
}

TEST_F(EntryChecksTest, whatIsNoFolderIsFalseInSilence)
{
    volume.writeFile("Music/a.mp3");
    ASSERT_EQ(0, mkfifo(volume.path("pipe").c_str(), 0644));
    EXPECT_FALSE(checkFolder("/Music/a.mp3"));
    EXPECT_FALSE(checkFolder("/pipe"));
    EXPECT_FALSE(checkFolder("/gone"));
    EXPECT_FALSE(checkFolder("/Music/a.mp3/below"));
    EXPECT_EQ("[/Music] root\n", folders());
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(EntryChecksTest, oneBitOfTheModeTellsAFolder)
{
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    volume.path("socket").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(0, bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    close(descriptor);
    EXPECT_TRUE(checkFolder("/socket")); // 0140000 has the bit 0040000
}

TEST_F(EntryChecksTest, onlyTheStartFolderMayBeALink)
{
    volume.makeFolder("elsewhere");
    ASSERT_EQ(0, symlink(volume.path("elsewhere").c_str(), volume.path("link").c_str()));
    EXPECT_FALSE(checkFolder("/link"));
    EXPECT_TRUE(manager->checkAndUpdateFolderEntryInTheDB(root + "/link", root + "/link", true));
    EXPECT_EQ("[/Music] root\n[/link] root\n", folders());
}

TEST_F(EntryChecksTest, pathShorterThanTheVolumesHasNothingLeftInTheCatalogue)
{
    EXPECT_TRUE(manager->checkAndUpdateFolderEntryInTheDB("/", root + "/Music", false));
    EXPECT_EQ("[/Music] root\n", folders());
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(EntryChecksTest, failedFolderIsLoggedAsAFile)
{
    volume.makeFolder("Music/Rock");
    const BrokenStatement broken(sql::addFolder);
    EXPECT_FALSE(checkFolder("/Music/Rock"));
    EXPECT_EQ((std::vector<LogLine> { err("insertIndividualFolder() failed, handleStatus: 21\n"),
                  err("Error in checking for the file " + root + "/Music/Rock in the DB\n") }),
        loggedLines());
}

} // namespace
