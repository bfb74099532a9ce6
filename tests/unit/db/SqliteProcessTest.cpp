#include "db/SqliteProcess.h"

#include "core/WithoutLinks.h"
#include "db/CatalogueAdmission.h"
#include "db/CatalogueFile.h"
#include "db/CatalogueTest.h"
#include "db/DBOperationException.h"
#include "support/SyslogCapture.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

constexpr uid_t nobody = 65534;

/// SQLite as the daemon sets it up, with catalogues that a user of the volume exchanges while they are being opened.
class SqliteProcessTest : public CatalogueTest {
protected:
    static void SetUpTestSuite() { setUpSqliteForDaemon(); }
    static void TearDownTestSuite()
    {
        sqlite3_vfs* files = sqlite3_vfs_find(nullptr);
        for (const char* call : { "open", "unlink", "fchown", "fchmod" })
            files->xSetSystemCall(files, call, nullptr);
    }

    /// A catalogue with that folder alone, of root's, closed. Returns its path.
    std::string makeWith(const std::string& folder)
    {
        openNew();
        DBFolder row = folderAt(folder);
        EXPECT_TRUE(db->insertFolder(row, true));
        close();
        return dbPath;
    }
    /// The same with a log that somebody else owns.
    std::string makeWithForeignLog()
    {
        std::string path = makeWith("/Music");
        change("pragma journal_mode=wal");
        giveToSomebody(volume.writeFile(".quarrow/quarrow.db-wal"));
        return path;
    }
    /// Whether SQLite can read what is at the path.
    static bool isReadable(const std::string& path)
    {
        sqlite3* handle = nullptr;
        sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr);
        const int rc = sqlite3_exec(handle, "select * from Folders", nullptr, nullptr, nullptr);
        sqlite3_close(handle);
        return rc == SQLITE_OK;
    }
    static void giveToSomebody(const std::string& path) { EXPECT_EQ(0, chown(path.c_str(), nobody, nobody)) << path; }
    static bool isMarked(const std::string& path)
    {
        struct stat64 status = {};
        EXPECT_EQ(0, lstat64(path.c_str(), &status)) << path;
        return (status.st_mode & S_ISVTX) != 0;
    }
};

constexpr unsigned pageBytes = 4096;

/// Four bytes, the highest first.
std::string bytesOf(std::size_t number)
{
    std::string bytes;
    for (const unsigned shift : { 24U, 16U, 8U, 0U })
        bytes += static_cast<char>(number >> shift);
    return bytes;
}

std::size_t pagesOf(const std::string& path) { return static_cast<std::size_t>(fs::file_size(path) / pageBytes); }

/// The journal of a transaction over several files that changed nothing. It ends with the name of a file that lists
/// all their journals, and that goes when none of them is left.
std::string journalThatNames(const std::string& path, std::size_t pages)
{
    const std::string magic = "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";
    constexpr std::size_t sectorBytes = 512;
    constexpr std::size_t lockedByte = 0x40000000; // its page holds no content
    std::string journal = magic + bytesOf(0) + bytesOf(0) + bytesOf(pages) + bytesOf(sectorBytes) + bytesOf(pageBytes);
    journal.resize(sectorBytes);
    std::size_t sum = 0;
    for (const char c : path)
        sum += static_cast<unsigned char>(c);
    return journal + bytesOf(lockedByte / pageBytes + 1) + path + bytesOf(path.length()) + bytesOf(sum) + magic;
}

} // namespace

TEST_F(SqliteProcessTest, givesItMemoryInStepsOf32Bytes)
{
    void* const memory = sqlite3_malloc(33);
    EXPECT_EQ(64U, sqlite3_msize(memory));
    sqlite3_free(memory);
}

TEST_F(SqliteProcessTest, readsWhatWasAdmitted)
{
    const std::string path = makeWith("/Music");
    const CatalogueAdmission admission(path);
    EXPECT_TRUE(admission.isTrusted());
    EXPECT_TRUE(isReadable(path));
}

TEST_F(SqliteProcessTest, doesNotReadWhatHasTakenThePlaceOfWhatWasAdmitted)
{
    const std::string path = makeWith("/Music");
    const std::string other = volume.path("other.db");
    fs::copy_file(path, other);
    {
        const CatalogueAdmission admission(path);
        fs::rename(other, path);
        EXPECT_FALSE(isReadable(path));
    }
    EXPECT_TRUE(isReadable(path)) << "the next admission is one of its own";
}

TEST_F(SqliteProcessTest, doesNotReadALogThatHasTakenThePlaceOfTheOneThatWasAdmitted)
{
    const std::string path = makeWith("/Music");
    change("pragma journal_mode=wal");
    volume.writeFile(".quarrow/quarrow.db-wal", "admitted");
    const std::string other = volume.writeFile("other", "another");
    const CatalogueAdmission admission(path);
    EXPECT_TRUE(isReadable(path));
    volume.writeFile(".quarrow/quarrow.db-wal", "admitted");
    const CatalogueAdmission again(path);
    fs::rename(other, path + "-wal");
    EXPECT_FALSE(isReadable(path));
}

TEST_F(SqliteProcessTest, readsNoLogThatHasComeSinceAndStillHasToBeLookedInto)
{
    const std::string path = makeWith("/Music");
    change("pragma journal_mode=wal");
    const CatalogueAdmission admission(path);
    const std::string planted = volume.writeFile(".quarrow/quarrow.db-wal", "planted");
    ASSERT_EQ(0, chmod(planted.c_str(), 0644 | S_ISVTX));
    EXPECT_FALSE(isReadable(path));
    ASSERT_EQ(0, chmod(planted.c_str(), 0644));
    EXPECT_TRUE(isReadable(path));
}

TEST_F(SqliteProcessTest, trustsWhatWasAdmittedAndNotWhatIsInItsPlace)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "changing owners is not permitted";
    const std::string path = makeWith("/Music");
    const std::string other = volume.path("other.db");
    const std::string kept = volume.path("kept.db");
    fs::copy_file(path, other);
    ASSERT_EQ(0, chmod(other.c_str(), 0644 | S_ISVTX));
    ASSERT_EQ(0, chown(path.c_str(), nobody, nobody));
    CatalogueAdmission admission(path);
    EXPECT_FALSE(admission.isTrusted());
    EXPECT_FALSE(admission.isRefused());
    EXPECT_TRUE(isMarked(path));
    fs::rename(path, kept);
    fs::rename(other, path);
    admission.trust();
    EXPECT_TRUE(isMarked(path));
    EXPECT_FALSE(isMarked(kept));
}

TEST_F(SqliteProcessTest, followsNoLinkInAPathThatWasResolved)
{
    const std::string path = makeWith("/Music");
    const std::string found = resolveOwnLinks(path, LinkedFile::followed);
    EXPECT_TRUE(isReadable(found));
    fs::rename(catalogueFolder, volume.path("elsewhere"));
    fs::create_directory_symlink(volume.path("elsewhere"), catalogueFolder);
    EXPECT_TRUE(CatalogueAdmission(found).isRefused());
    EXPECT_EQ(SQLITE_CANTOPEN, createCatalogueFile(found, "new"));
    EXPECT_FALSE(avoidCopyOnWrite(found));
    EXPECT_EQ(volume.path("elsewhere/quarrow.db"), resolveOwnLinks(path, LinkedFile::followed));

    // The link comes while the catalogue is open: whatever is opened or taken away later is not to be found.
    fs::remove(catalogueFolder);
    fs::rename(volume.path("elsewhere"), catalogueFolder);
    sqlite3* handle = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(found.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr));
    fs::rename(catalogueFolder, volume.path("elsewhere"));
    fs::create_directory_symlink(volume.path("elsewhere"), catalogueFolder);
    EXPECT_EQ(SQLITE_CANTOPEN, sqlite3_exec(handle, "delete from Folders", nullptr, nullptr, nullptr));
    sqlite3_close(handle);

    // A log that is open is taken away by its name when the catalogue is closed.
    fs::remove(catalogueFolder);
    fs::rename(volume.path("elsewhere"), catalogueFolder);
    ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(found.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr));
    EXPECT_EQ(
        SQLITE_OK, sqlite3_exec(handle, "pragma journal_mode=wal; delete from Folders", nullptr, nullptr, nullptr));
    fs::rename(catalogueFolder, volume.path("elsewhere"));
    fs::create_directory_symlink(volume.path("elsewhere"), catalogueFolder);
    sqlite3_close(handle);
    EXPECT_TRUE(volume.exists("elsewhere/quarrow.db-wal"));
}

TEST_F(SqliteProcessTest, doesNotReadAnywhereWhatStillHasToBeLookedInto)
{
    const std::string path = makeWith("/Music");
    ASSERT_EQ(0, chmod(path.c_str(), 0644 | S_ISVTX));
    EXPECT_FALSE(isReadable(path));
    ASSERT_EQ(0, chmod(path.c_str(), 0644));
    EXPECT_TRUE(isReadable(path));
    const std::string journal = volume.writeFile(".quarrow/quarrow.db-journal", journalThatNames("", pagesOf(path)));
    ASSERT_EQ(0, chmod(journal.c_str(), 0644 | S_ISVTX));
    EXPECT_FALSE(isReadable(path));
}

TEST_F(SqliteProcessTest, trustsTheCatalogueOfWhichOnlyASideFileWasSomebodyElses)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "changing owners is not permitted";
    const std::string path = makeWithForeignLog();
    CatalogueAdmission admission(path);
    EXPECT_TRUE(isMarked(path));
    admission.trust();
    EXPECT_FALSE(isMarked(path));
    EXPECT_TRUE(isMarked(path + "-wal")) << "which nobody has opened, and so nobody looked into";
}

TEST_F(SqliteProcessTest, trustsTheLogThatWasOpened)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "changing owners is not permitted";
    const std::string path = makeWithForeignLog();
    CatalogueAdmission admission(path);
    sqlite3* handle = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr));
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(handle, "select * from Folders", nullptr, nullptr, nullptr));
    admission.trust();
    EXPECT_FALSE(isMarked(path + "-wal"));
    sqlite3_close(handle);
}

TEST_F(SqliteProcessTest, doesNotTrustTheLogThatWasOnlyLookedAt)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "changing owners is not permitted";
    const std::string path = makeWithForeignLog();
    CatalogueAdmission admission(path);
    struct stat64 status = {};
    ASSERT_EQ(0, stat64((path + "-wal").c_str(), &status));
    EXPECT_TRUE(CatalogueAdmission::allows((path + "-wal").c_str(), status));
    admission.trust();
    EXPECT_TRUE(isMarked(path + "-wal"));
}

TEST_F(SqliteProcessTest, usesNoIndexThatWasSomebodyElses)
{
    const std::string path = makeWith("/Music");
    const std::string index = volume.writeFile(".quarrow/quarrow.db-shm", "held open by somebody");
    ASSERT_EQ(0, chmod(index.c_str(), 0644 | S_ISVTX));
    EXPECT_FALSE(CatalogueAdmission(path).isRefused());
    EXPECT_FALSE(fs::exists(index));
}

TEST_F(SqliteProcessTest, givesNothingToWhoOwnsWhatIsAtThePath)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "changing owners is not permitted";
    const std::string path = makeWith("/Music");
    change("pragma journal_mode=wal");
    sqlite3* handle = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr));
    fs::rename(path, volume.path("aside"));
    const std::string other = volume.writeFile(".quarrow/quarrow.db", "somebody's");
    ASSERT_EQ(0, chmod(other.c_str(), 0666));
    giveToSomebody(other);
    sqlite3_exec(handle, "select * from Folders", nullptr, nullptr, nullptr);
    for (const char* side : { "-wal", "-shm" }) {
        struct stat64 status = {};
        ASSERT_EQ(0, stat64((path + side).c_str(), &status));
        EXPECT_EQ(0U, status.st_uid);
        EXPECT_EQ(0U, status.st_mode & S_IWOTH);
    }
    sqlite3_close(handle);
}

TEST_F(SqliteProcessTest, refusesAJournalThatNamesAnotherFile)
{
    const std::string path = makeWith("/Music");
    const std::string victim = volume.writeFile("victim-wal", "precious");
    const std::size_t pages = pagesOf(path);
    volume.writeFile(".quarrow/quarrow.db-journal", journalThatNames(victim, pages));
    EXPECT_TRUE(CatalogueAdmission(path).isRefused());
    const std::string whole = journalThatNames(victim, pages);
    volume.writeFile(".quarrow/quarrow.db-journal", whole.substr(0, whole.length() - victim.length() - 20));
    EXPECT_FALSE(CatalogueAdmission(path).isRefused()) << "one like the daemon's own";
}

TEST_F(SqliteProcessTest, takesAwayNothingThatAJournalNames)
{
    const std::string path = makeWith("/Music");
    const std::size_t pages = pagesOf(path);
    const std::string victim = volume.writeFile("victim", "precious");
    const std::string journal = journalThatNames(victim, pages);
    volume.makeFolder("etilqs_x");
    for (const std::string& named : { victim, volume.path("etilqs_x/../victim") }) {
        volume.writeFile(".quarrow/quarrow.db-journal", journalThatNames(named, pages));
        EXPECT_FALSE(isReadable(path));
        EXPECT_EQ("precious", volume.readFile("victim"));
    }

    TearDownTestSuite();
    volume.writeFile(".quarrow/quarrow.db-journal", journal);
    EXPECT_TRUE(isReadable(path));
    EXPECT_FALSE(volume.exists("victim")) << "the journal is one that SQLite acts on";
    SetUpTestSuite();
}
