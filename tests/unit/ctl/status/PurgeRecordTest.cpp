#include "ctl/status/PurgeRecord.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace {

class PurgeRecordTest : public testing::Test {
protected:
    PurgeRecord recordIn(const std::string& text) const { return readPurgeRecord(folder.writeFile("state.xml", text)); }

    TemporaryFolder folder;
};

TEST_F(PurgeRecordTest, theFileWasWrittenWithThePurge)
{
    const PurgeRecord record
        = recordIn("<Quarrow><Version>1.0</Version><Volume><last_updated_time>501000</last_updated_time>"
                   "<last_purge_time>400000</last_purge_time></Volume></Quarrow>");
    EXPECT_TRUE(record.isKnown);
    EXPECT_EQ(501000, record.lastPurge);
}

TEST_F(PurgeRecordTest, aPurgeWithoutItsTimeIsNotKnown)
{
    const PurgeRecord record = recordIn("<Quarrow><Volume><last_updated_time>0</last_updated_time>"
                                        "<last_purge_time>400000</last_purge_time></Volume></Quarrow>");
    EXPECT_FALSE(record.isKnown);
    EXPECT_FALSE(record.lastPurge);
}

TEST_F(PurgeRecordTest, withoutARecordThereWasNone)
{
    for (const char* text :
        { "<Quarrow/>", "<Other><Volume><last_purge_time>5</last_purge_time></Volume></Other>",
            "<Quarrow><Volume><last_updated_time>7</last_updated_time><last_purge_time>0</last_purge_time></Volume></Quarrow>",
            "<Quarrow><Volume><last_purge_time/></Volume></Quarrow>" }) {
        const PurgeRecord record = recordIn(text);
        EXPECT_TRUE(record.isKnown) << text;
        EXPECT_FALSE(record.lastPurge) << text;
    }
}

TEST_F(PurgeRecordTest, aDamagedFileIsNotKnown)
{
    for (const std::string& text : { std::string(), std::string("<Quarrow>"), std::string(20000, ' ') + "<Quarrow/>" })
        EXPECT_FALSE(recordIn(text).isKnown);
}

TEST_F(PurgeRecordTest, nothingIsMadeWhereThereIsNone)
{
    EXPECT_FALSE(readPurgeRecord(folder.path("state.xml")).isKnown);
    EXPECT_FALSE(folder.exists("state.xml"));
}

} // namespace
