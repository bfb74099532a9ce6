#include "db/CatalogueTest.h"
#include "db/ConnectionProbe.h"
#include "db/DBOperationException.h"
#include "support/CatalogueReader.h"
#include "support/SyslogCapture.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>

namespace fs = std::filesystem;

namespace {

constexpr uid_t nobody = 65534;
const LogLine refused { LOG_ERR, "open() failed, handleStatus: 14\n" };
const LogLine notAuthorized { LOG_ERR, "open() failed, handleStatus: 23\n" };

/// What stands under the names of a catalogue when it is opened, and whom it belongs to.
class CatalogueOpening : public CatalogueTest {
protected:
    void expectRefused(const LogLine& line = refused)
    {
        clearLog();
        EXPECT_THROW(open(), DBOperationException);
        EXPECT_EQ(line, loggedLines().back());
        db.reset();
    }

    /// A catalogue with a folder, which is closed.
    void makeClosed()
    {
        openNew();
        DBFolder music = folderAt("/Music");
        EXPECT_TRUE(db->insertFolder(music, true));
        close();
    }

    static bool isRoot() { return geteuid() == 0; }
    static void giveAway(const std::string& path, mode_t mode = 0666)
    {
        EXPECT_EQ(0, chmod(path.c_str(), mode));
        EXPECT_EQ(0, chown(path.c_str(), nobody, nobody));
    }
    static std::string ownerAndMode(const std::string& path)
    {
        struct stat64 status = {};
        EXPECT_EQ(0, lstat64(path.c_str(), &status)) << path;
        char text[64];
        std::snprintf(text, sizeof text, "%u %o", status.st_uid, status.st_mode & 07777U);
        return text;
    }
};

} // namespace

TEST_F(CatalogueOpening, aSecondOneClosesTheFirst)
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

TEST_F(CatalogueOpening, withoutItEveryOperationFailsInAnOrderlyWay)
{
    VolumeDBManager closed;
    DBFolder folder = folderAt("/Music");
    DBFile file = fileAt("/Music/a.mp3");
    for (const std::function<void()>& operation : std::initializer_list<std::function<void()>> {
             [&] { closed.folderExists(folder); },
             [&] { closed.insertFolder(folder, true); },
             [&] { closed.insertIndividualFolder(folder); },
             [&] { closed.insertFile(file); },
             [&] { closed.deleteFolder(folder); },
             [&] { closed.getListOfFolders(1); },
             [&] { closed.purgeDeletedFiles(0); },
             [&] { closed.updatePathForIndividualFolder(1, 0, "x"); },
             [&] { closed.createDBStructure(); },
             [&] { closed.beginTransaction(); },
             [&] { closed.commitTransaction(); },
             [&] { closed.rollbackTransaction(); },
         })
        EXPECT_TRUE(throwsOperationException(operation));
    closed.useWriteAheadLog();
    closed.keepFiles();
    closed.checkpoint();
    closed.abandonTransaction();
    EXPECT_FALSE(closed.isInTransaction());
    EXPECT_EQ(SQLITE_MISUSE, closed.executeSQLStmt(nullptr));
}

TEST_F(CatalogueOpening, ofWhatIsNoFileForSqliteMakesNothing)
{
    const std::string here = volume.makeFolder("here");
    fs::current_path(here);
    for (const char* path : { "", ":memory:", "file:quarrow.db", "file:" }) {
        clearLog();
        db = std::make_unique<VolumeDBManager>();
        EXPECT_TRUE(throwsOperationException([&] { db->open(path); })) << path;
        EXPECT_EQ(refused, loggedLines().back()) << path;
        db.reset();
        EXPECT_TRUE(fs::is_empty(here)) << path;
    }
    fs::current_path("/");
}

TEST_F(CatalogueOpening, aPassingFailureLeavesNoHalfSchema)
{
    const ConnectionProbe probe;
    for (const std::string statement : { "create table Files", "create index Files_name" }) {
        ConnectionProbe interrupting;
        interrupting.atTheStartOf(statement, [&] { interrupting.interrupt(); });
        expectRefused({ LOG_ERR, "open() failed, handleStatus: 7\n" });
        EXPECT_EQ("", dumpCatalogueFolder());
    }
    openNew();
    EXPECT_EQ("11\n", query("select count(*) from sqlite_master where name not like 'sqlite_%'"));
}

TEST_F(CatalogueOpening, aCatalogueThatAnotherDaemonIsMakingIsNotTouched)
{
    const std::string making = volume.writeFile(".quarrow/quarrow.db.tmp", "half of it");
    const int other = ::open(making.c_str(), O_RDONLY);
    ASSERT_EQ(0, flock(other, LOCK_EX));
    expectRefused();
    EXPECT_EQ("half of it", volume.readFile(".quarrow/quarrow.db.tmp"));
    ::close(other);
    openNew();
    close();
    EXPECT_EQ("quarrow.db\n", dumpCatalogueFolder());
}

TEST_F(CatalogueOpening, whatIsNoRegularFileWithOneNameIsRefused)
{
    makeClosed();
    const std::string victim = volume.writeFile("victim", "precious");
    for (const std::string suffix : { "-journal", "-wal", "-shm", "" }) {
        const std::string path = dbPath + suffix;
        const std::string kept = dbPath + ".kept";
        if (suffix.empty())
            fs::rename(path, kept);
        ASSERT_EQ(0, mkfifo(path.c_str(), 0666));
        expectRefused();
        fs::remove(path);
        fs::create_hard_link(victim, path);
        expectRefused();
        fs::remove(path);
        fs::create_directory(path);
        expectRefused();
        fs::remove(path);
        if (suffix.empty()) {
            fs::rename(kept, path);
        } else {
            fs::create_symlink(victim, path);
            expectRefused();
            fs::remove(path);
        }
        EXPECT_EQ("precious", volume.readFile("victim"));
    }
    open();
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(CatalogueOpening, aSecondNameOfTheCatalogueIsRefused)
{
    makeClosed();
    fs::create_hard_link(dbPath, volume.path("second"));
    expectRefused();
}

TEST_F(CatalogueOpening, rootBecomesTheOwnerOfWhatWasGivenAway)
{
    if (!isRoot())
        GTEST_SKIP() << "changing owners is not permitted";
    makeClosed();
    giveAway(dbPath);
    open();
    EXPECT_EQ("0 644", ownerAndMode(dbPath));
    EXPECT_EQ("0 644", ownerAndMode(dbPath + "-wal"));
    EXPECT_EQ("0 644", ownerAndMode(dbPath + "-shm"));
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
    for (const std::string suffix : { "", "-wal", "-shm" })
        giveAway(dbPath + suffix);
    db->keepFiles();
    for (const std::string suffix : { "", "-wal", "-shm" })
        EXPECT_EQ("0 1644", ownerAndMode(dbPath + suffix)) << "to be looked into at the next start";
    change("create view v as select 1");
    close();
    expectRefused(notAuthorized);
}

TEST_F(CatalogueOpening, rootDoesNotBecomeTheOwnerOfWhatHasTakenThePlaceOfAFileInUse)
{
    if (!isRoot())
        GTEST_SKIP() << "changing owners is not permitted";
    openNew();
    for (const std::string suffix : { "", "-wal", "-shm", "-journal" }) {
        if (fs::exists(dbPath + suffix))
            fs::rename(dbPath + suffix, dbPath + ".aside" + suffix);
        giveAway(volume.writeFile(".quarrow/quarrow.db" + suffix, "somebody's"));
    }
    db->keepFiles();
    for (const std::string suffix : { "", "-wal", "-shm", "-journal" })
        EXPECT_EQ(std::to_string(nobody) + " 666", ownerAndMode(dbPath + suffix)) << suffix;
}

TEST_F(CatalogueOpening, aSetUidProgramDoesNotBecomeRoots)
{
    if (!isRoot())
        GTEST_SKIP() << "changing owners is not permitted";
    makeClosed();
    ASSERT_EQ(0, chown(dbPath.c_str(), nobody, nobody));
    ASSERT_EQ(0, chmod(dbPath.c_str(), 06755));
    open();
    EXPECT_EQ("0 755", ownerAndMode(dbPath));
}

TEST_F(CatalogueOpening, aJournalOfSomebodyElseIsRefusedAndNotTaken)
{
    if (!isRoot())
        GTEST_SKIP() << "changing owners is not permitted";
    makeClosed();
    const std::string journal = volume.writeFile(".quarrow/quarrow.db-journal", "names a file to be removed");
    giveAway(journal);
    expectRefused();
    EXPECT_EQ(std::to_string(nobody) + " 666", ownerAndMode(journal));
    fs::remove(journal);
    open();
    giveAway(volume.writeFile(".quarrow/quarrow.db-journal"));
    db->keepFiles();
    EXPECT_EQ(std::to_string(nobody) + " 666", ownerAndMode(journal));
}

TEST_F(CatalogueOpening, ofAPathThatIsTooLongForSqliteMakesNothing)
{
    std::string folder = volume.path();
    while (folder.length() < 480)
        folder += "/" + std::string(40, 'x');
    dbPath = folder + "/.quarrow/quarrow.db";
    expectRefused();
    EXPECT_FALSE(fs::exists(folder + "/.quarrow/quarrow.db"));
}

TEST_F(CatalogueOpening, anIndexThatWasGivenAwayIsNotUsed)
{
    if (!isRoot())
        GTEST_SKIP() << "changing owners is not permitted";
    makeClosed();
    const std::string planted = volume.writeFile(".quarrow/quarrow.db-shm", std::string(32768, 'x'));
    giveAway(planted);
    const int held = ::open(planted.c_str(), O_RDWR);
    open();
    EXPECT_EQ(0, ftruncate(held, 0)) << "its former owner cannot cut off the one in use";
    EXPECT_LT(0U, fs::file_size(planted));
    DBFolder films = folderAt("/Films");
    EXPECT_TRUE(db->insertFolder(films, true));
    ::close(held);
}

TEST_F(CatalogueOpening, whatSomebodyElseHasPutIntoTheSchemaIsRefusedEachTime)
{
    if (!isRoot())
        GTEST_SKIP() << "changing owners is not permitted";
    for (const std::string sql : {
             "create trigger t after insert on Folders begin select 1; end",
             "create view v as select 1",
             "create virtual table f using fts5(x)",
             "create table t(x)",
             "create index i on Files(size)",
             "create index i on Files(path like name)",
             "analyze",
             "alter table Files add column x default(1)",
             "alter table Folders rename column is_system to x",
             "drop index Files_name; create index Files_name on Files(name) where size > 0",
             "drop table Files; create table Files(path text check(path not like '%a%a%a%'))",
         }) {
        SCOPED_TRACE(sql);
        makeClosed();
        change(sql);
        giveAway(dbPath);
        expectRefused(notAuthorized);
        expectRefused(notAuthorized);
        fs::remove(dbPath);
    }
}

TEST_F(CatalogueOpening, whatPassesForSomethingElseInTheSchemaIsRefused)
{
    if (!isRoot())
        GTEST_SKIP() << "changing owners is not permitted";
    const std::string trigger = "CREATE TRIGGER t after insert on Folders begin select 1; end";
    for (const std::string set :
        { "type='table'", "type='index'", "tbl_name='sqlite_sequence'", "name='Files_name'" }) {
        SCOPED_TRACE(set);
        makeClosed();
        change(trigger);
        change("pragma writable_schema=1; update sqlite_master set " + set + " where type='trigger'");
        giveAway(dbPath);
        clearLog();
        EXPECT_THROW(open(), DBOperationException);
        const LogLine damaged { LOG_ERR, "open() failed, handleStatus: 11\n" }; // by SQLite's own look
        EXPECT_TRUE(loggedLines().back() == damaged || loggedLines().back() == notAuthorized);
        db.reset();
        fs::remove(dbPath);
    }
}

TEST_F(CatalogueOpening, aSchemaOfSomebodyElseIsNotReadToItsEnd)
{
    if (!isRoot())
        GTEST_SKIP() << "changing owners is not permitted";
    makeClosed();
    std::string tables = "begin;";
    for (int table = 0; table < 4000; ++table)
        tables += "create table t" + std::to_string(table) + "(x);";
    change(tables + "commit");
    giveAway(dbPath);
    const auto before = sqlite3_memory_used();
    ASSERT_LT(0, before) << "it is not counted";
    sqlite3_memory_highwater(1);
    expectRefused(notAuthorized);
    EXPECT_GT(500000, sqlite3_memory_highwater(0) - before);
}

TEST_F(CatalogueOpening, triggersOfAnAdministratorWork)
{
    makeClosed();
    change("create table Counts(n); create trigger t after insert on Folders begin insert into Counts values(1); end");
    for (int start = 0; start < 2; ++start) {
        open();
        DBFolder folder = folderAt("/Films" + std::to_string(start));
        EXPECT_TRUE(db->insertFolder(folder, true));
        close();
    }
    EXPECT_EQ("2\n", query("select count(*) from Counts"));
}

TEST_F(CatalogueOpening, aHarmlessCatalogueOfSomebodyElseIsTrustedFromThenOn)
{
    if (!isRoot())
        GTEST_SKIP() << "changing owners is not permitted";
    makeClosed();
    giveAway(dbPath);
    open();
    close();
    change("create view v as select 1"); // an administrator's
    open();
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(CatalogueOpening, aCacheOfAnySizeThatTheFileAsksForIsNotGiven)
{
    makeClosed();
    change("pragma default_cache_size=1000000000");
    const ConnectionProbe probe;
    open();
    EXPECT_EQ(-2000, probe.pragma("cache_size"));
}

TEST_F(CatalogueOpening, whatTriggersMayAskForHasLimits)
{
    const ConnectionProbe probe;
    openNew();
    EXPECT_EQ(100000, probe.limit(SQLITE_LIMIT_SQL_LENGTH));
    EXPECT_EQ(0, probe.limit(SQLITE_LIMIT_ATTACHED));
    EXPECT_EQ(10, probe.limit(SQLITE_LIMIT_TRIGGER_DEPTH));
}

TEST_F(CatalogueOpening, aLogThatCannotBeMappedForOnceIsTriedAgain)
{
    makeClosed();
    sqlite3_vfs* const files = sqlite3_vfs_find(nullptr);
    void* (*const refusing)(void*, size_t, int, int, int, off_t) = [](void*, size_t, int, int, int, off_t) {
        errno = ENOMEM;
        return MAP_FAILED;
    };
    ASSERT_EQ(SQLITE_OK, files->xSetSystemCall(files, "mmap", reinterpret_cast<sqlite3_syscall_ptr>(refusing)));
    open();
    files->xSetSystemCall(files, "mmap", nullptr);
    EXPECT_EQ("delete\n", query("pragma journal_mode"));
    db->useWriteAheadLog();
    EXPECT_EQ("wal\n", query("pragma journal_mode"));
}

TEST_F(CatalogueOpening, valuesHaveALimit)
{
    openNew();
    DBFolder folder = folderAt("/" + std::string(2000000, 'x'));
    EXPECT_TRUE(throwsOperationException([&] { db->insertFolder(folder, true); }));
}
