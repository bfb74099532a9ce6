#include "db/CatalogueTest.h"
#include "db/DBOperationException.h"
#include "support/SyslogCapture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

// What the catalogue's making asks of the disk, and what becomes of it when the disk refuses. The functions below stand
// in for the C library's in this whole program.

namespace {

enum class Refused { nothing, looking, syncing, renaming };

Refused refused;
std::string refusedPath;
std::vector<std::string> calls; ///< syncs, removals and renames, in order; names without their folders
bool emptyNameMade;

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

bool refuses(Refused call)
{
    if (refused == call)
        errno = EIO;
    return refused == call;
}

class CatalogueFileOnDiskTest : public CatalogueTest {
protected:
    CatalogueFileOnDiskTest()
    {
        calls.clear();
        emptyNameMade = false;
    }
    ~CatalogueFileOnDiskTest() override { refused = Refused::nothing; }

    void expectRefused(int status)
    {
        clearLog();
        EXPECT_THROW(open(), DBOperationException);
        const std::vector<LogLine> log = loggedLines();
        const LogLine expected { LOG_ERR, "open() failed, handleStatus: " + std::to_string(status) + "\n" };
        EXPECT_EQ(1, std::count(log.begin(), log.end(), expected));
        close();
        refused = Refused::nothing;
    }
};

} // namespace

extern "C" int fsync(int descriptor)
{
    calls.push_back("sync " + nameOf(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor))));
    return refuses(Refused::syncing) ? -1 : static_cast<int>(syscall(SYS_fsync, descriptor));
}

/// Which SQLite takes where it is to be had.
extern "C" int fdatasync(int descriptor) { return fsync(descriptor); }

extern "C" int unlink(const char* path) noexcept
{
    calls.push_back("unlink " + nameOf(path));
    return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

extern "C" int renameat(int fromFolder, const char* from, int toFolder, const char* to) noexcept
{
    calls.push_back("rename " + nameOf(from) + " " + nameOf(to));
    return refuses(Refused::renaming) ? -1 : static_cast<int>(syscall(SYS_renameat, fromFolder, from, toFolder, to));
}

extern "C" int unlinkat(int folder, const char* name, int flags) noexcept
{
    calls.push_back("unlink " + nameOf(name));
    return static_cast<int>(syscall(SYS_unlinkat, folder, name, flags));
}

extern "C" int stat64(const char* path, struct stat64* status) noexcept
{
    if (path == refusedPath && refuses(Refused::looking))
        return -1;
    return fstatat64(AT_FDCWD, path, status, 0);
}

extern "C" int mkdir(const char* path, mode_t mode) noexcept
{
    emptyNameMade = emptyNameMade || *path == '\0';
    return static_cast<int>(syscall(SYS_mkdirat, AT_FDCWD, path, mode));
}

TEST_F(CatalogueFileOnDiskTest, aNewOneIsSyncedRenamedAndItsFolderSynced)
{
    open();
    calls.erase(
        std::remove_if(calls.begin(), calls.end(), [](const auto& call) { return call[0] == 'u'; }), calls.end());
    calls.resize(std::min<std::size_t>(calls.size(), 3));
    EXPECT_EQ((std::vector<std::string> { "sync quarrow.db.tmp", "rename quarrow.db.tmp quarrow.db", "sync .quarrow" }),
        calls);
}

TEST_F(CatalogueFileOnDiskTest, nothingIsWaitedForBetweenTheSwitchOfTheFileAndItsLog)
{
    open();
    close();
    calls.clear();
    open();
    EXPECT_EQ(std::vector<std::string>(), calls);
    insertFolderRow("/Music", -1);
    calls.clear();
    close();
    EXPECT_EQ((std::vector<std::string> { "sync quarrow.db-wal", "sync .quarrow", "sync quarrow.db",
                  "unlink quarrow.db-shm", "unlink quarrow.db-wal" }),
        calls);
}

TEST_F(CatalogueFileOnDiskTest, oneThatCannotBeSyncedIsAbsent)
{
    refused = Refused::syncing;
    expectRefused(10);
    EXPECT_EQ("", dumpCatalogueFolder());
}

TEST_F(CatalogueFileOnDiskTest, oneThatCannotBeMovedToItsPlaceIsAbsent)
{
    refused = Refused::renaming;
    expectRefused(10);
    EXPECT_EQ("", dumpCatalogueFolder());
}

TEST_F(CatalogueFileOnDiskTest, oneThatCannotBeLookedAtIsNotReplaced)
{
    open();
    insertFolderRow("/Music", -1);
    close();
    refusedPath = dbPath;
    refused = Refused::looking;
    expectRefused(14);
    open();
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(CatalogueFileOnDiskTest, noDirectoryOfAnEmptyNameIsMade)
{
    VolumeDBManager().createPath(volume.path("a/b/quarrow.db").c_str());
    EXPECT_TRUE(volume.exists("a/b"));
    EXPECT_FALSE(emptyNameMade);
}
