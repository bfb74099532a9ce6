#include "CheckTest.h"

#include "support/CatalogueReader.h"

#include <sqlite3.h>

#include <cerrno>

namespace {

/// A good configuration of one volume, on a machine that lacks something.
class CheckMachineTest : public CheckTest {
protected:
    std::string checkHere() const { return check(withSettings("")); }

    /// The catalogue of a volume at `root`, with live and deleted rows of folders.
    void makeCatalogue(const std::string& root, int live, int deleted) const
    {
        folder.makeFolder(root + "/.quarrow");
        const std::string path = folder.path(root + "/.quarrow/quarrow.db");
        sqlite3* made = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &made));
        sqlite3_close(made);
        changeCatalogue(path,
            "create table Folders(folder_id integer primary key, parent_id, path, name, created_time, modified_time,"
            " is_deleted, last_updated_time);"
            "create table Files(file_id integer primary key, folder_id, path, name, category, size, created_time,"
            " modified_time, is_deleted, last_updated_time);"
            "with recursive n(i) as (select 1 union all select i + 1 from n where i < "
                + std::to_string(live + deleted) + ") insert into Folders(path, is_deleted) select '/' || i, i > "
                + std::to_string(live) + " from n");
    }

    static std::string tooFewWatches(const std::string& folders, const std::string& limit, const std::string& doubled)
    {
        return "fs.inotify.max_user_watches: warning: The catalogues list " + folders
            + " folders, but a user may have only " + limit
            + " watches. The daemon sees changes in the other folders in full walks only. Write 'fs.inotify.max_user_watches"
              " = "
            + doubled + "' into /etc/sysctl.d/quarrow.conf, run 'sysctl --system' and restart the daemon.\n";
    }
};

TEST_F(CheckMachineTest, fewerWatchesThanFolders)
{
    makeCatalogue("v", 1000, 5);
    EXPECT_EQ("", checkHere());
    folder.writeFile("machine/watches", "999\n");
    EXPECT_EQ(tooFewWatches("1,000", "999", "2000"), checkHere());
    machine.watchLimitHere = folder.writeFile("machine/here", "999\n"); // the same one, as without a namespace
    EXPECT_EQ(tooFewWatches("1,000", "999", "2000"), checkHere());
    machine.watchLimit = folder.path("machine/no-such-limit");
    machine.watchLimitHere = machine.watchLimit;
    EXPECT_EQ("", checkHere());
}

TEST_F(CheckMachineTest, theLowerLimitOfAUserNamespaceIsNamed)
{
    const auto tooFewHere = [](const std::string& settings) {
        return "user.max_inotify_watches: warning: The catalogues list 1,000 folders, but a user may have only 60"
               " watches. The daemon sees changes in the other folders in full walks only. Write "
            + settings
            + " into /etc/sysctl.d/quarrow.conf, run 'sysctl --system' and restart the daemon. The setting"
              " user.max_inotify_watches belongs to the user namespace, such as a container, and is changed inside it.\n";
    };
    makeCatalogue("v", 1000, 0);
    machine.watchLimitHere = folder.writeFile("machine/here", "60\n");
    EXPECT_EQ(tooFewHere("'user.max_inotify_watches = 2000'"), checkHere());
    folder.writeFile("machine/watches", "999\n");
    EXPECT_EQ(tooFewHere("'user.max_inotify_watches = 2000' and 'fs.inotify.max_user_watches = 2000'"), checkHere());
    machine.watchLimit = folder.path("machine/no-such-limit");
    EXPECT_EQ(tooFewHere("'user.max_inotify_watches = 2000'"), checkHere());
}

TEST_F(CheckMachineTest, watchesAreSharedByTheVolumesWhoseCataloguesCanBeRead)
{
    makeCatalogue("v", 600, 0);
    makeCatalogue("w", 401, 0);
    const auto volume = [](const std::string& name) {
        return "<Volume><Name>" + name + "</Name><Root>DIR/" + name
            + "</Root><ExcludePaths><Path>/.quarrow</Path></ExcludePaths></Volume>";
    };
    EXPECT_EQ(tooFewWatches("1,001", "1,000", "2002"), check(withVolumes(volume("v") + volume("w"))));
    folder.writeFile("x/.quarrow/quarrow.db", "no catalogue");
    EXPECT_EQ(
        tooFewWatches("at least 1,001", "1,000", "2002"), check(withVolumes(volume("v") + volume("w") + volume("x"))));
}

TEST_F(CheckMachineTest, noInotifyInstanceLeft)
{
    machine.tryInotify = [] { return EMFILE; };
    EXPECT_EQ(
        "fs.inotify.max_user_instances: warning: This user has no inotify instance left of 128. A daemon that is"
        " started as this user aborts. Write a higher limit into /etc/sysctl.d/quarrow.conf and run 'sysctl --system',"
        " or end programs that hold one.\n",
        checkHere());
    machine.tryInotify = [] { return ENOSYS; };
    EXPECT_EQ(
        "fs.inotify.max_user_instances: warning: inotify cannot be used: Function not implemented. Use a kernel that has"
        " inotify.\n",
        checkHere());
}

TEST_F(CheckMachineTest, standby)
{
    folder.writeFile("machine/standby");
    EXPECT_EQ(
        "DIR/machine/standby: warning: The volumes are in standby: no full walk starts, and no purge runs. Remove this"
        " file to end the standby.\n",
        checkHere());
}

TEST_F(CheckMachineTest, aRefusedConfigurationIsNotCheckedAgainstTheMachine)
{
    folder.writeFile("machine/standby");
    EXPECT_EQ(std::string::npos, check("<Q/>").find("standby"));
}

// The MIME table

constexpr const char* table = "DIR/machine/mime_types.txt: ";

TEST_F(CheckMachineTest, aMimeTableThatIsMissingOrEmpty)
{
    const std::string remedy = " Put the table there that belongs to the daemon, and restart it.\n";
    folder.writeFile("machine/mime_types.txt", "# nothing\nvideo/mp4\n");
    EXPECT_EQ(
        table + ("warning: The MIME table lists no extension. Every file is of category other." + remedy), checkHere());
    folder.remove("machine/mime_types.txt");
    EXPECT_EQ(table
            + ("warning: The MIME table cannot be read: No such file or directory. Every file is of category other without"
               " it."
                + remedy),
        checkHere());
    folder.makeFolder("machine/mime_types.txt");
    EXPECT_EQ(
        table + ("warning: The MIME table lists no extension. Every file is of category other." + remedy), checkHere());
}

TEST_F(CheckMachineTest, anExtensionThatStandsTwice)
{
    folder.writeFile("machine/mime_types.txt", "# mp4\nvideo/mp4 mp4 MP4 # mp4\n\naudio/mp4 m4a mp4\n");
    EXPECT_EQ(table
            + std::string(
                "4: warning: The extension 'mp4' is also in line 2, which decides that it is of the type video/mp4."
                " Remove one of them.\n"),
        checkHere());
}

TEST_F(CheckMachineTest, entriesOfTheMimeTableWithoutEffect)
{
    folder.writeFile("machine/mime_types.txt", "video/mp4\tmp4\n mp3 audio/mpeg\nimage/jpeg .jpg\n");
    EXPECT_EQ(table
            + std::string("2: warning: 'mp3' is no MIME type: the extensions behind it are of category other. Begin"
                          " the line with a type such as video/mp4.\n")
            + table
            + std::string(
                "3: warning: The extension '.jpg' has a dot, so no file has it. Write what stands behind the last"
                " dot of the names.\n"),
        checkHere());
}

TEST_F(CheckMachineTest, aTypeIsKnownByItsFirstFiveCharacters)
{
    folder.writeFile("machine/mime_types.txt", "video mp4\naudio-x mp3\nimages jpg\n");
    EXPECT_EQ("", checkHere());
    folder.writeFile("machine/mime_types.txt", "Video mp4\n");
    EXPECT_EQ(table
            + std::string("1: warning: 'Video' is no MIME type: the extensions behind it are of category other. Begin"
                          " the line with a type such as video/mp4.\n"),
        checkHere());
}

TEST_F(CheckMachineTest, theTableOfThisReleaseIsWithoutFault)
{
    machine.mimeTable = QUARROW_MIME_TABLE;
    EXPECT_EQ("", checkHere());
}

TEST_F(CheckMachineTest, thisMachineHasInotify) { EXPECT_EQ(0, Machine::takeInotifyInstance()); }

} // namespace
