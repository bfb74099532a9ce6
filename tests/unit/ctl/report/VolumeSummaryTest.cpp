#include "ctl/report/VolumeSummary.h"

#include "ctl/Catalogue.h"
#include "ctl/HostConfiguration.h"
#include "ctl/Text.h"
#include "ctl/report/ReportData.h"
#include "support/TemporaryFolder.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sqlite3.h>

namespace {

/// A catalogue that is written row by row, also as no daemon would.
class VolumeSummaryTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &writer));
        run("create table Folders(folder_id integer primary key, parent_id, path, name, category, created_time,"
            " modified_time, is_deleted, last_updated_time)");
        run("create table Files(file_id integer primary key, folder_id, path, name, category, size, modified_time,"
            " created_time, is_deleted, last_updated_time)");
    }
    void TearDown() override { sqlite3_close(writer); }

    void run(const std::string& sql)
    {
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(writer, sql.c_str(), nullptr, nullptr, nullptr)) << sqlite3_errmsg(writer);
    }

    void file(
        const std::string& where, const std::string& name, int category, long long size, int time, bool deleted = false)
    {
        run(fmt::format("insert into Files values(null, 77, '{0}/{1}', '{1}', {2}, {3}, {4}, {4} + 5, {5}, {4} + 10)",
            where, name, category, size, time, deleted ? 1 : 0));
    }

    nlohmann::json summary()
    {
        const Catalogue catalogue(path);
        const VolumeSummary read(catalogue);
        ReportData data;
        data.add({ "V", "/srv/v", {}, {} }, read, 100);
        return nlohmann::json::parse(data.text(0))["volumes"][0];
    }

    TemporaryFolder folder;
    const std::string path = folder.path("quarrow.db");
    sqlite3* writer = nullptr;
};

TEST_F(VolumeSummaryTest, anEmptyCatalogueIsAllZeros)
{
    const auto found = summary();
    EXPECT_EQ("[0,0,0,0]", found["files"].dump());
    EXPECT_EQ(R"([[0,"",0,0,0,0,0,0]])", found["tree"].dump());
    EXPECT_EQ("", found["newestChange"]);
    EXPECT_EQ("[]", found["arrived"].dump());
    EXPECT_EQ(R"({"files":0,"groups":0,"list":[],"wasted":0})", found["duplicates"].dump());
}

TEST_F(VolumeSummaryTest, onlyLiveRowsAreThere)
{
    run("insert into Folders values(null, -1, '', '', -1, 1, 1, 0, 500)");
    run("insert into Folders values(null, 1, '/gone', 'gone', -1, 1, 1, 1, 600)");
    file("/a", "x.mp3", 2, 10, 1000000000);
    file("", "y.mkv", 1, 20, 1000000100);
    file("/gone", "z.mp3", 2, 40, 1000000200, true);
    const auto found = summary();
    EXPECT_EQ(1, found["folders"]);
    EXPECT_EQ("[1,1,0,0]", found["files"].dump());
    EXPECT_EQ("[20,10,0,0]", found["bytes"].dump());
    EXPECT_EQ(R"([[0,"",1,1,20,0,0,0],[0,"a",2,1,10,0,0,0]])", found["tree"].dump());
    EXPECT_EQ(R"([["2001-09",2,[20,10,0,0]]])", found["arrived"].dump());
    EXPECT_EQ("/y.mkv", found["newest"][0]["path"]);
    EXPECT_EQ("/y.mkv", found["largest"][0]["path"]);
    EXPECT_EQ(2U, found["newest"].size());
    EXPECT_EQ(1, found["deleted"]["files"]);
    EXPECT_EQ(1, found["deleted"]["folders"]);
    EXPECT_EQ("/gone/z.mp3", found["deleted"]["recent"][0]["path"]);
    EXPECT_EQ(localTime(1000000210), found["newestChange"]);
}

TEST_F(VolumeSummaryTest, newestIsWhatArrivedLast)
{
    file("", "old", 4, 1, 1000);
    run("insert into Files values(null, 77, '/copy', 'copy', 4, 1, 5, 9000, 0, 1)"); // an old file that was copied here
    const auto found = summary();
    EXPECT_EQ("/copy", found["newest"][0]["path"]);
    EXPECT_EQ(localTime(9000), found["newest"][0]["time"]);
}

TEST_F(VolumeSummaryTest, sizesOfAnySignAreCounted)
{
    file("", "revived", 1, -1073741824, 1);
    file("", "nonsense", 1, -5000000000000, 1);
    const auto found = summary();
    EXPECT_EQ(2, found["negativeSizes"]);
    EXPECT_EQ("[3221225472,0,0,0]", found["bytes"].dump());
}

TEST_F(VolumeSummaryTest, duplicatesAreNamedWithTheirPaths)
{
    file("/a", "same", 4, 7, 1);
    file("/b", "same", 4, 7, 1);
    file("/c", "same", 4, 8, 1);
    file("/d", "same", 4, 7, 1, true);
    EXPECT_EQ(R"([{"files":2,"name":"same","paths":["/a/same","/b/same"],"size":7,"wasted":7}])",
        summary()["duplicates"]["list"].dump());
}

TEST_F(VolumeSummaryTest, namesOfAnyBytesAreShown)
{
    run("insert into Files values(null, 1, cast(x'2f61ff0a3c2f7363726970743e' as text), '', 4, 1, 1, 1, 0, 1)");
    EXPECT_EQ("/a\\xff\\n</script>", summary()["largest"][0]["path"]);
}

TEST_F(VolumeSummaryTest, valuesOfAnotherProgramDoNoHarm)
{
    run("insert into Files values(null, null, null, null, 'x', 'y', 9223372036854775807, 'z', 0, null)");
    run("insert into Files values(null, 1, 'no slash', 'no slash', 99, 9223372036854775807, 1, 1, 0, 1)");
    run("insert into Files values(null, 1, '/b', 'b', -1, 9223372036854775807, 1, -9223372036854775807, 0, 1)");
    run("insert into Folders values(null, null, null, null, 1, 1, 1, 0, null)");
    const auto found = summary();
    EXPECT_EQ("[0,0,0,3]", found["files"].dump());
    EXPECT_EQ(__LONG_LONG_MAX__, found["bytes"][3]);
}

} // namespace
