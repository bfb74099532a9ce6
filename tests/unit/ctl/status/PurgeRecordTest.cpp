#include "ctl/status/PurgeRecord.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace {

class PurgeRecordTest : public testing::Test {
protected:
    PurgeRecord recordIn(const std::string& text, int threshold = 1000) const
    {
        return readPurgeRecord(folder.writeFile("state.xml", text), threshold);
    }

    TemporaryFolder folder;
};

TEST_F(PurgeRecordTest, aPurgeWasAThresholdAfterTheRecordedTime)
{
    const PurgeRecord record
        = recordIn("<Quarrow><Version>1.0</Version><Volume><last_updated_time>9</last_updated_time>"
                   "<last_purge_time>500000</last_purge_time></Volume></Quarrow>");
    EXPECT_TRUE(record.isKnown);
    EXPECT_EQ(501000, record.lastPurge);
}

TEST_F(PurgeRecordTest, theSumHas32BitsAsTheDaemonsHas)
{
    const std::string text = "<Quarrow><Volume><last_purge_time>2147483647</last_purge_time></Volume></Quarrow>";
    EXPECT_EQ(-2147483648LL, recordIn(text, 1).lastPurge);
}

TEST_F(PurgeRecordTest, withoutARecordThereWasNone)
{
    for (const char* text : { "<Quarrow/>", "<Other><Volume><last_purge_time>5</last_purge_time></Volume></Other>",
             "<Quarrow><Volume><last_purge_time>0</last_purge_time></Volume></Quarrow>",
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
    EXPECT_FALSE(readPurgeRecord(folder.path("state.xml"), 1000).isKnown);
    EXPECT_FALSE(folder.exists("state.xml"));
}

} // namespace
