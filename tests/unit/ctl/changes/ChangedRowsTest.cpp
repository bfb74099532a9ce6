#include "ctl/changes/ChangedRows.h"

#include "../SampleCatalogue.h"
#include "ctl/Catalogue.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>
#include <vector>

namespace {

/// Folders and files whose ids and times are in no useful order: /b/c is older than /b, which holds it.
const std::string tree
    = "insert into Folders(folder_id, parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)"
      " values (1, 3, '/b/c', 'c', 1, 1, 0, 20), (2, -1, '', '', 1, 1, 0, 40), (3, 2, '/b', 'b', 1, 1, 0, 30),"
      " (4, 5, '/x/y', 'y', 1, 1, 1, 20), (5, 2, '/x', 'x', 1, 1, 1, 30);"
      "insert into Files(folder_id, path, name, category, size, modified_time, created_time, is_deleted,"
      " last_updated_time) values (1, '/b/c/1', '1', 1, 1, 1, 1, 0, 20), (4, '/x/y/2', '2', 2, 2, 1, 1, 1, 20),"
      " (3, '/b/3', '3', 3, 3, 1, 1, 0, 10), (2, '/b', 'b', 4, 4, 1, 1, 1, 30);";

class ChangedRowsTest : public ::testing::Test {
protected:
    /// The paths in the order in which they come, deleted ones with a '-' and files with a '*' in front.
    std::vector<std::string> since(long long time)
    {
        std::vector<std::string> paths;
        ChangedRows(Catalogue(sample.path()), "V").since(time, collector(paths));
        return paths;
    }
    std::vector<std::string> all()
    {
        std::vector<std::string> paths;
        ChangedRows(Catalogue(sample.path()), "V").all(collector(paths));
        return paths;
    }
    std::uint64_t digest(long long first, long long last)
    {
        return ChangedRows(Catalogue(sample.path()), "V").digest(first, last);
    }

    SampleCatalogue sample;

private:
    static ChangedRows::Sink collector(std::vector<std::string>& paths)
    {
        return [&paths](const std::string& line) {
            EXPECT_EQ('\n', line.back());
            const auto row = nlohmann::json::parse(line);
            paths.push_back(std::string(row.at("deleted").get<bool>() ? "-" : "")
                + (row.at("kind") == "file" ? "*" : "") + row.at("path").get<std::string>());
        };
    }
};

using Paths = std::vector<std::string>;

TEST_F(ChangedRowsTest, deletedComesBeforeLiveAndFoldersBeforeWhatLiesInThem)
{
    sample.run(tree);
    EXPECT_EQ((Paths { "-*/x/y/2", "-*/b", "-/x/y", "-/x", "", "/b", "/b/c", "*/b/c/1", "*/b/3" }), all());
    EXPECT_EQ((Paths { "-*/x/y/2", "-*/b", "-/x/y", "-/x", "", "/b", "/b/c", "*/b/3", "*/b/c/1" }), since(10));
}

TEST_F(ChangedRowsTest, theMomentItselfIsIncluded)
{
    sample.run(tree);
    EXPECT_EQ((Paths { "-*/b", "-/x", "", "/b" }), since(30));
    EXPECT_EQ(Paths { "" }, since(40));
    EXPECT_EQ(Paths {}, since(41));
}

TEST_F(ChangedRowsTest, manyFoldersComeInTheSameOrder)
{
    sample.run(tree
        + "insert into Folders(parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)"
          " with recursive n(i) as (select 1 union all select i + 1 from n where i < 20100)"
          " select 1, '/b/c/' || (30000 - i), i, 1, 1, i % 2, 50 - i % 3 from n;");
    const Paths paths = since(25);
    ASSERT_EQ(20104U, paths.size()); // without /b/c and its file, which are older
    EXPECT_EQ("-*/b", paths[0]);
    EXPECT_EQ("-/x", paths[1]);
    const auto live = std::find(paths.begin(), paths.end(), "");
    EXPECT_TRUE(std::is_sorted(std::make_reverse_iterator(live), paths.rend() - 1));
    EXPECT_TRUE(std::is_sorted(live, paths.end()));
    EXPECT_EQ(10052, paths.end() - live);
}

TEST_F(ChangedRowsTest, jsonHasEveryColumnThatCounts)
{
    sample.run(tree);
    std::string last;
    ChangedRows(Catalogue(sample.path()), "V\xff").all([&last](const std::string& line) { last = line; });
    EXPECT_EQ(
        "{\"volume\":\"V\xef\xbf\xbd\",\"volume_hex\":\"56ff\",\"kind\":\"file\",\"id\":3,\"folder_id\":3,\"path\":\"/b/3\","
        "\"name\":\"3\",\"category\":\"image\",\"size\":3,\"created_time\":1,\"modified_time\":1,"
        "\"last_updated_time\":10,\"deleted\":false}\n",
        last);
}

TEST_F(ChangedRowsTest, digestTellsEveryChangeOfTheRowsInItsTimes)
{
    sample.run(tree);
    const std::uint64_t before = digest(20, 30);
    EXPECT_EQ(before, digest(20, 39));
    EXPECT_NE(before, digest(20, 40));
    sample.run("update Files set size = 9 where last_updated_time = 10");
    EXPECT_EQ(before, digest(20, 30));
    for (const char* change : { "update Files set size = 9 where path = '/b/c/1'",
             "update Folders set is_deleted = 0 where path = '/x'", "update Files set last_updated_time = 30" }) {
        const std::uint64_t last = digest(20, 30);
        sample.run(change);
        EXPECT_NE(last, digest(20, 30)) << change;
    }
}

} // namespace
