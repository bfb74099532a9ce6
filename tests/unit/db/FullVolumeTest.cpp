#include "db/CatalogueTest.h"
#include "db/ConnectionProbe.h"
#include "db/DBOperationException.h"
#include "db/SmallVolume.h"
#include "db/Transaction.h"
#include "support/SyslogCapture.h"

#include <syslog.h>

namespace {

struct Room {
    const char* name;
    int kibibytes;
};

/// A catalogue on a volume that has room for some folders more: with and without room for a write-ahead log.
class FullVolumeTransactionTest : public CatalogueTest, public testing::WithParamInterface<Room> {
protected:
    FullVolumeTransactionTest()
        : mountPoint(volume.makeFolder("small"))
        , small(mountPoint, GetParam().kibibytes)
    {
        dbPath = mountPoint + "/quarrow.db";
        openNew();
    }
    ~FullVolumeTransactionTest() override { close(); }

    void insertTwoMegabytes()
    {
        for (int number = 0; number < 2000; ++number) {
            DBFolder folder = folderAt("/" + std::to_string(number) + std::string(1000, 'x'));
            db->insertFolder(folder, true);
        }
    }

    std::string mountPoint;
    SmallVolume small;
};

INSTANTIATE_TEST_SUITE_P(Catalogue, FullVolumeTransactionTest,
    testing::Values(Room { "inJournalMode", 512 }, Room { "withALog", 1600 }),
    [](const testing::TestParamInfo<Room>& room) { return room.param.name; });

class FullVolumeWriteAheadLogTest : public CatalogueTest { };

} // namespace

TEST_P(FullVolumeTransactionTest, aFailedStatementMayHaveEndedTheTransaction)
{
    close();
    const ConnectionProbe probe;
    open();
    ASSERT_EQ(40, probe.pragma("max_page_count=40"));
    clearLog();
    db->beginTransaction();
    EXPECT_THROW(insertTwoMegabytes(), DBOperationException);
    EXPECT_EQ(
        (std::vector<LogLine> { { LOG_ERR, "insertIndividualFolder() failed, handleStatus: 1\n" } }), loggedLines());
    EXPECT_FALSE(db->isInTransaction());
    EXPECT_EQ("", dumpFolders());
}

TEST_P(FullVolumeTransactionTest, aScopeKnowsThatItsTransactionIsGone)
{
    Transaction transaction(*db);
    EXPECT_TRUE(throwsOperationException([this] {
        insertTwoMegabytes();
        db->commitTransaction();
    }));
    EXPECT_FALSE(db->isInTransaction());
    EXPECT_THROW(transaction.requireOpen(), DBOperationException);
    EXPECT_THROW(transaction.commit(), DBOperationException);
}

TEST_P(FullVolumeTransactionTest, theCatalogueStaysUsable)
{
    EXPECT_TRUE(throwsOperationException([this] {
        db->beginTransaction();
        insertTwoMegabytes();
        db->commitTransaction();
    }));
    ASSERT_FALSE(db->isInTransaction());
    DBFolder music = folderAt("/Music");
    EXPECT_TRUE(db->insertFolder(music, true));
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
    EXPECT_EQ("ok\n", query("pragma integrity_check"));
}

TEST_F(FullVolumeWriteAheadLogTest, aCatalogueKeepsItsJournalAndFullSyncsUntilThereIsRoomForALog)
{
    const std::string mountPoint = volume.makeFolder("small");
    dbPath = mountPoint + "/quarrow.db";
    const SmallVolume small(mountPoint, 2048);
    volume.writeFile("small/ballast", std::string(1500000, 'x'));
    const ConnectionProbe probe;
    open();
    EXPECT_EQ(2, probe.pragma("synchronous")); // FULL
    EXPECT_EQ("delete\n", query("pragma journal_mode"));
    volume.remove("small/ballast");
    open();
    EXPECT_EQ(1, probe.pragma("synchronous")); // NORMAL
    EXPECT_EQ("wal\n", query("pragma journal_mode"));
    close();
}

TEST_F(FullVolumeWriteAheadLogTest, aCatalogueCanBeReadWhileItIsOpen)
{
    const std::string mountPoint = volume.makeFolder("small");
    dbPath = mountPoint + "/quarrow.db";
    int catalogues = 0;
    for (int kibibytes = 64; kibibytes <= 128; kibibytes += 4) {
        SCOPED_TRACE(std::to_string(kibibytes) + " KiB");
        const SmallVolume small(mountPoint, kibibytes);
        if (!throwsOperationException([this] { open(); })) {
            ++catalogues;
            EXPECT_EQ("", dumpFolders());
        }
        close();
    }
    EXPECT_LT(0, catalogues);
}
