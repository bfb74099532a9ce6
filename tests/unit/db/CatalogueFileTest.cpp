#include "db/CatalogueTest.h"
#include "db/DBOperationException.h"
#include "db/SmallVolume.h"
#include "support/CatalogueReader.h"
#include "support/SyslogCapture.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

/// The first start on a volume, under bad conditions: a catalogue in the making is complete or absent.
class CatalogueFileTest : public CatalogueTest {
protected:
    /// A process that opens the catalogue, inserts the folder and is gone without closing.
    void insertAndDie(const std::string& path) const
    {
        const pid_t child = fork();
        if (child == 0) {
            auto* const manager = new VolumeDBManager; // never deleted
            manager->open(dbPath.c_str());
            DBFolder folder = folderAt(path);
            _exit(manager->insertFolder(folder, true) ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        ASSERT_EQ(0, status);
    }

    void expectNewAndEmpty()
    {
        EXPECT_EQ("", dumpFolders());
        EXPECT_EQ("ok\n", query("pragma integrity_check"));
        DBFolder folder = folderAt("/New");
        EXPECT_TRUE(db->insertFolder(folder, true));
        EXPECT_EQ("1 in -1 '/New' live\n", dumpFolders());
    }
};

} // namespace

TEST_F(CatalogueFileTest, nothingElseIsLeftOfIt)
{
    openNew();
    close();
    EXPECT_EQ("quarrow.db\n", dumpCatalogueFolder());
}

TEST_F(CatalogueFileTest, onAVolumeOfAnySizeItIsCompleteOrAbsent)
{
    const std::string mountPoint = volume.makeFolder("small");
    catalogueFolder = mountPoint + "/.quarrow";
    dbPath = catalogueFolder + "/quarrow.db";
    int failures = 0;
    int catalogues = 0;
    for (int kibibytes = 4; kibibytes <= 128; kibibytes += 4) {
        SCOPED_TRACE(std::to_string(kibibytes) + " KiB");
        const SmallVolume small(mountPoint, kibibytes);
        fs::create_directory(catalogueFolder);
        const bool failed = throwsOperationException([this] { open(); });
        close();
        if (failed) {
            ++failures;
            EXPECT_EQ("", dumpCatalogueFolder());
        } else {
            ++catalogues;
            EXPECT_EQ("11\n", countSchema());
        }
    }
    EXPECT_LT(0, failures);
    EXPECT_LT(0, catalogues);
}

TEST_F(CatalogueFileTest, aFullVolumeIsLoggedAsTheFailureOfTheLastStatement)
{
    const std::string mountPoint = volume.makeFolder("small");
    dbPath = mountPoint + "/quarrow.db";
    const SmallVolume small(mountPoint, 8);
    EXPECT_THROW(open(), DBOperationException);
    const std::vector<LogLine> log = loggedLines();
    ASSERT_EQ(3U, log.size());
    EXPECT_EQ((LogLine { LOG_INFO, "Generating schema" }), log[1]);
    EXPECT_EQ(LOG_ERR, log[2].priority);
    EXPECT_EQ(0U, log[2].text.rfind("createDBStructure() failed, handleStatus: ", 0)) << log[2];
}

TEST_F(CatalogueFileTest, whatAnEarlierAttemptLeftIsReplaced)
{
    volume.writeFile(".quarrow/quarrow.db.tmp", std::string(5000, 'x'));
    open();
    expectNewAndEmpty();
    close();
    EXPECT_EQ("quarrow.db\n", dumpCatalogueFolder());
}

TEST_F(CatalogueFileTest, aLinkInThePlaceOfTheTemporaryFileIsNotFollowed)
{
    volume.writeFile("victim", "precious");
    volume.makeFolder(".quarrow");
    fs::create_symlink(volume.path("victim"), dbPath + ".tmp");
    open();
    expectNewAndEmpty();
    EXPECT_EQ("precious", volume.readFile("victim"));
}

TEST_F(CatalogueFileTest, aLinkInThePlaceOfASideFileIsNotFollowed)
{
    openNew();
    for (const std::string suffix : { "-wal", "-shm", "-journal" }) {
        close();
        volume.writeFile("victim", "precious");
        fs::create_symlink(volume.path("victim"), dbPath + suffix);
        try {
            open();
            DBFolder folder = folderAt("/Music" + suffix);
            db->insertFolder(folder, true);
        } catch (const DBOperationException&) {
            // SQLite may refuse to work like that.
        }
        close();
        EXPECT_EQ("precious", volume.readFile("victim")) << suffix;
        fs::remove(dbPath + suffix);
    }
}

TEST_F(CatalogueFileTest, theLogOfACatalogueThatSomebodyRemovedDoesNotReachTheNewOne)
{
    insertAndDie("/Old");
    ASSERT_TRUE(volume.exists(".quarrow/quarrow.db-wal"));
    volume.remove(".quarrow/quarrow.db");
    open();
    expectNewAndEmpty();
}

TEST_F(CatalogueFileTest, theJournalOfACatalogueThatSomebodyRemovedDoesNotReachTheNewOne)
{
    volume.writeFile(".quarrow/quarrow.db");
    change("create table Old(content text); insert into Old values('before')");
    const pid_t child = fork();
    if (child == 0) { // dies in the middle of a write whose pages have reached the file
        sqlite3* old = nullptr;
        sqlite3_open(dbPath.c_str(), &old);
        sqlite3_exec(old,
            "pragma cache_size=1; begin; update Old set content='after'; create table More(content);"
            "insert into More values(zeroblob(100000))",
            nullptr, nullptr, nullptr);
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    ASSERT_TRUE(volume.exists(".quarrow/quarrow.db-journal"));
    ASSERT_LT(512U, fs::file_size(dbPath + "-journal"));
    volume.remove(".quarrow/quarrow.db");
    open();
    EXPECT_EQ("11\n", countSchema());
    expectNewAndEmpty();
}

TEST_F(CatalogueFileTest, aCatalogueOfAKilledDaemonKeepsItsRows)
{
    insertAndDie("/Old");
    open();
    EXPECT_EQ("1 in -1 '/Old' live\n", dumpFolders());
}

TEST_F(CatalogueFileTest, aLinkThatLeadsNowhereIsReplacedByTheCatalogue)
{
    volume.makeFolder(".quarrow");
    fs::create_symlink(volume.path("nowhere"), dbPath);
    open();
    expectNewAndEmpty();
    EXPECT_FALSE(volume.exists("nowhere"));
}

TEST_F(CatalogueFileTest, aLinkOfTheDaemonsOwnUserIsFollowed)
{
    volume.makeFolder("fast");
    fs::create_directory_symlink(volume.path("fast"), catalogueFolder);
    open();
    expectNewAndEmpty();
    EXPECT_TRUE(volume.exists("fast/quarrow.db"));
}

TEST_F(CatalogueFileTest, aLinkOfAnotherUserIsRefused)
{
    const auto expectRefused = [this](const std::string& link, const std::string& target) {
        fs::create_symlink(target, link);
        if (lchown(link.c_str(), 65534, 65534) != 0)
            GTEST_SKIP() << "changing owners is not permitted";
        clearLog();
        EXPECT_THROW(open(), DBOperationException);
        EXPECT_EQ((LogLine { LOG_ERR, "open() failed, handleStatus: 14\n" }), loggedLines().back());
        fs::remove(link);
    };
    volume.writeFile("victim");
    volume.makeFolder("other");
    expectRefused(catalogueFolder, volume.path("other"));
    volume.makeFolder(".quarrow");
    expectRefused(dbPath, volume.path("victim"));
    EXPECT_EQ("", volume.readFile("victim"));
    EXPECT_TRUE(fs::is_empty(volume.path("other")));
    EXPECT_TRUE(fs::is_empty(catalogueFolder));
}

TEST_F(CatalogueFileTest, aCatalogueThatAnotherDaemonIsMakingIsNotTouched)
{
    const std::string making = volume.writeFile(".quarrow/quarrow.db.tmp", "half of it");
    const int other = ::open(making.c_str(), O_RDONLY);
    ASSERT_EQ(0, flock(other, LOCK_EX));
    clearLog();
    EXPECT_THROW(open(), DBOperationException);
    EXPECT_EQ((LogLine { LOG_ERR, "open() failed, handleStatus: 14\n" }), loggedLines().back());
    db.reset();
    EXPECT_EQ("half of it", volume.readFile(".quarrow/quarrow.db.tmp"));
    ::close(other);
    openNew();
    close();
    EXPECT_EQ("quarrow.db\n", dumpCatalogueFolder());
}
