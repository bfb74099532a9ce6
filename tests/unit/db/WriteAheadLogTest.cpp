#include "db/CatalogueTest.h"
#include "db/ConnectionProbe.h"
#include "db/SmallVolume.h"
#include "support/CatalogueReader.h"
#include "support/SyslogCapture.h"

#include <grp.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace {

/// A reader that is connected to the catalogue for the length of a scope.
class ConnectedReader {
public:
    explicit ConnectedReader(const std::string& dbPath)
    {
        sqlite3_open_v2(dbPath.c_str(), &connection, SQLITE_OPEN_READONLY, nullptr);
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(connection, "begin; select * from Folders", nullptr, nullptr, nullptr));
    }
    ~ConnectedReader() { sqlite3_close(connection); }
    ConnectedReader(const ConnectedReader&) = delete;
    ConnectedReader& operator=(const ConnectedReader&) = delete;

private:
    sqlite3* connection = nullptr;
};

constexpr uid_t nobody = 65534;
constexpr int notPermitted = 77;

/// How the catalogue is seen by those who read it while the daemon runs, after it stopped and after it was killed.
class WriteAheadLogTest : public CatalogueTest {
protected:
    WriteAheadLogTest() { EXPECT_EQ(0, chmod(volume.path().c_str(), 0755)); }

    /// Whether the paths of the live folders are these as a user without write permission reads them. Skips the test
    /// where this process cannot become another user.
    void expectFoldersReadByNobody(const std::string& expected) const
    {
        std::string rows;
        const int status = readByNobody(rows);
        if (status == notPermitted)
            GTEST_SKIP() << "changing the user is not permitted";
        EXPECT_EQ(0, status);
        EXPECT_EQ(expected, rows);
    }

    /// Reads in a process of its own; its exit status.
    int readByNobody(std::string& rows) const
    {
        int ends[2];
        EXPECT_EQ(0, pipe(ends));
        const pid_t child = fork();
        if (child == 0) {
            if (setgroups(0, nullptr) != 0 || setresgid(nobody, nobody, nobody) != 0
                || setresuid(nobody, nobody, nobody) != 0)
                _exit(notPermitted);
            if (access(dbPath.c_str(), W_OK) == 0)
                _exit(1);
            const std::string found = query("select path from Folders order by folder_id");
            _exit(write(ends[1], found.data(), found.size()) == static_cast<ssize_t>(found.size()) ? 0 : 1);
        }
        ::close(ends[1]);
        char part[256];
        for (ssize_t got; (got = read(ends[0], part, sizeof part)) > 0;)
            rows.append(part, static_cast<std::size_t>(got));
        ::close(ends[0]);
        int status = -1;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    void insertRoot(const std::string& path)
    {
        DBFolder folder = folderAt(path);
        EXPECT_TRUE(db->insertFolder(folder, true));
    }

    /// Makes a catalogue of /Music and closes it while somebody reads; what is done before the reader goes as well.
    void closeUnderAReader(const std::function<void()>& look)
    {
        openNew();
        insertRoot("/Music");
        const ConnectedReader reader(dbPath);
        close();
        look();
    }

    /// A process that opens the catalogue, does its work and is gone without closing.
    void openAndDie(const std::function<void()>& work)
    {
        const pid_t child = fork();
        if (child == 0) {
            db = std::make_unique<VolumeDBManager>();
            db->open(dbPath.c_str());
            work();
            _exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        ASSERT_EQ(0, status);
    }

    /// 1: a plain file, 2: one with a write-ahead log. Not while a connection of this process is open.
    int formatOfTheFile() const { return volume.readFile(".quarrow/quarrow.db").at(18); }
};

} // namespace

TEST_F(WriteAheadLogTest, anOpenCatalogueHasAWriteAheadLog)
{
    openNew();
    EXPECT_EQ("wal\n", query("pragma journal_mode"));
}

TEST_F(WriteAheadLogTest, anOpenCatalogueIsNotSyncedWithEveryTransaction)
{
    const ConnectionProbe probe;
    openNew();
    EXPECT_EQ(1, probe.pragma("synchronous")); // NORMAL
}

TEST_F(WriteAheadLogTest, anExistingPlainFileGetsAWriteAheadLogToo)
{
    openNew();
    close();
    ASSERT_EQ("delete\n", query("pragma journal_mode"));
    open();
    EXPECT_EQ("wal\n", query("pragma journal_mode"));
}

TEST_F(WriteAheadLogTest, aClosedCatalogueIsOnePlainFile)
{
    openNew();
    insertRoot("/Music");
    close();
    EXPECT_EQ(1, formatOfTheFile());
    EXPECT_EQ("quarrow.db\n", dumpCatalogueFolder());
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(WriteAheadLogTest, aCatalogueClosedUnderAReaderKeepsItsLog)
{
    closeUnderAReader([this] {
        EXPECT_EQ("wal\n", query("pragma journal_mode"));
        EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
    });
    EXPECT_EQ("quarrow.db\nquarrow.db-shm\nquarrow.db-wal\n", dumpCatalogueFolder());
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(WriteAheadLogTest, theNextCloseWithoutAReaderMakesItPlainAgain)
{
    closeUnderAReader([] {});
    open();
    close();
    EXPECT_EQ(1, formatOfTheFile());
    EXPECT_EQ("quarrow.db\n", dumpCatalogueFolder());
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(WriteAheadLogTest, aUserWithoutWritePermissionReadsWhileItIsOpen)
{
    openNew();
    insertRoot("/Music");
    expectFoldersReadByNobody("/Music\n");
}

TEST_F(WriteAheadLogTest, aUserWithoutWritePermissionReadsAfterTheClose)
{
    openNew();
    insertRoot("/Music");
    close();
    expectFoldersReadByNobody("/Music\n");
}

TEST_F(WriteAheadLogTest, aUserWithoutWritePermissionReadsAfterACloseUnderAReader)
{
    closeUnderAReader([this] { expectFoldersReadByNobody("/Music\n"); });
    expectFoldersReadByNobody("/Music\n");
}

TEST_F(WriteAheadLogTest, aUserWithoutWritePermissionReadsAfterACloseInMidTransaction)
{
    openNew();
    insertRoot("/Music");
    db->beginTransaction();
    close(); // cannot leave the log
    expectFoldersReadByNobody("/Music\n");
}

TEST_F(WriteAheadLogTest, aUserWithoutWritePermissionReadsWhatWasOpenedAndNotWrittenTo)
{
    openNew();
    insertRoot("/Music");
    open();
    expectFoldersReadByNobody("/Music\n");
}

TEST_F(WriteAheadLogTest, aUserWithoutWritePermissionReadsWhatWasReadAndNotWrittenTo)
{
    openNew();
    insertRoot("/Music");
    open();
    EXPECT_EQ("/Music", db->findRootFolder("/Music"));
    expectFoldersReadByNobody("/Music\n");
}

TEST_F(WriteAheadLogTest, aUserWithoutWritePermissionReadsAfterTheDaemonWasKilled)
{
    openAndDie([this] { insertRoot("/Music"); });
    expectFoldersReadByNobody("/Music\n");
}

TEST_F(WriteAheadLogTest, aUserWithoutWritePermissionReadsAfterACheckpointAndAKill)
{
    openAndDie([this] {
        insertRoot("/Music");
        db->checkpoint();
    });
    expectFoldersReadByNobody("/Music\n");
}

TEST_F(WriteAheadLogTest, aUserWithoutWritePermissionReadsAfterAKillThatFollowedReads)
{
    openNew();
    insertRoot("/Music");
    close();
    openAndDie([this] { db->findRootFolder("/Music"); });
    expectFoldersReadByNobody("/Music\n");
}

TEST_F(WriteAheadLogTest, aUserWithoutWritePermissionReadsAfterAKillThatFollowedTheOpen)
{
    openNew();
    insertRoot("/Music");
    close();
    openAndDie([] {});
    expectFoldersReadByNobody("/Music\n");
}

TEST_F(WriteAheadLogTest, aReaderInTheMiddleOfItsTransactionStopsNoWrite)
{
    openNew();
    const ConnectedReader reader(dbPath);
    insertRoot("/Music");
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(WriteAheadLogTest, afterACheckpointTheMainFileAloneIsComplete)
{
    openNew();
    insertRoot("/Music");
    db->checkpoint();
    // Copied by another process: closing the file in this one would take away the locks of its connections.
    const std::string copy = volume.path("copy.db");
    ASSERT_EQ(0, std::system(("cp " + dbPath + " " + copy).c_str()));
    EXPECT_EQ("/Music\n", queryCatalogue(copy, "select path from Folders"));
}

TEST_F(WriteAheadLogTest, aCheckpointLeavesTheLogItsLength)
{
    openNew();
    insertRoot("/Music");
    db->checkpoint();
    EXPECT_LT(0U, std::filesystem::file_size(dbPath + "-wal"))
        << "to shorten it, the checkpoint would wait for readers";
}

TEST_F(WriteAheadLogTest, aCheckpointUnderAReaderWaitsForNobody)
{
    openNew();
    const ConnectedReader reader(dbPath);
    insertRoot("/Music");
    db->checkpoint();
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(WriteAheadLogTest, theLogComesBackWhenWhatPreventedItIsGone)
{
    openNew();
    close();
    sqlite3* neighbour = nullptr;
    sqlite3_open(dbPath.c_str(), &neighbour);
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(neighbour, "begin immediate", nullptr, nullptr, nullptr));
    open();
    EXPECT_EQ("delete\n", query("pragma journal_mode"));
    sqlite3_close(neighbour);
    db->useWriteAheadLog();
    EXPECT_EQ("wal\n", query("pragma journal_mode"));
}

TEST_F(WriteAheadLogTest, aCatalogueOnAReadOnlyVolumeCanBeReadAndNotWritten)
{
    const std::string mountPoint = volume.makeFolder("media");
    dbPath = mountPoint + "/quarrow.db";
    const SmallVolume media(mountPoint, 4096);
    openNew();
    insertRoot("/Music");
    close();
    media.makeReadOnly();
    openNew();
    DBFolder music = folderAt("/Music");
    EXPECT_TRUE(db->folderExists(music));
    EXPECT_TRUE(db->beginTransaction());
    EXPECT_TRUE(throwsOperationException([&] { db->updateFolder(music); }));
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "updateFolder() failed, handleStatus: 1\n" } }), loggedLines());
}

TEST_F(WriteAheadLogTest, aLogThatCannotBeMappedForOnceIsTriedAgain)
{
    openNew();
    close();
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
