#include "ctl/find/RowQueries.h"

#include "SearchedCatalogue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace {

class RowQueriesTest : public testing::Test {
protected:
    static RowQueries queries(const Selection& selection, const std::optional<std::string>& under = std::nullopt,
        RowQueries::Table table = RowQueries::Table::files)
    {
        static const std::string root = "/srv/media";
        return { table, selection, root, under };
    }

    static Selection called(const std::string& pattern, NamePattern::Words words = NamePattern::Words::wildcards)
    {
        Selection selection;
        selection.pattern.emplace(pattern, words);
        return selection;
    }

    /// SQLite's plan, without what stands in front of each step. (Values that are not bound are NULL, which is no
    /// matter.)
    std::string plan(const BoundText& query) const
    {
        std::istringstream rows(queryCatalogue(catalogue.path(), "explain query plan " + query.text));
        std::string steps;
        for (std::string line; std::getline(rows, line);)
            steps += line.substr(std::min(line.size(), line.find_first_not_of("0123456789 ")));
        return steps;
    }

    std::string candidatePlan(const RowQueries& wanted) const
    {
        const auto candidates = wanted.candidates();
        return candidates ? plan(*candidates) : "none";
    }

    SearchedCatalogue catalogue;
};

constexpr auto exact = NamePattern::Words::exact;

TEST_F(RowQueriesTest, namesAreFoundInTheirIndexAlone)
{
    EXPECT_EQ("SEARCH Files USING COVERING INDEX Files_name (name=?)", candidatePlan(queries(called("a.mp3", exact))));
    EXPECT_EQ("SEARCH Files USING COVERING INDEX Files_name (name>? AND name<?)",
        candidatePlan(queries(called("IMG_*.jpg"))));
    EXPECT_EQ("SEARCH Files USING COVERING INDEX Files_name (name>?)", candidatePlan(queries(called("\xff*"))));
    EXPECT_EQ("SCAN Files USING COVERING INDEX Files_name", candidatePlan(queries(called("live"))));
    EXPECT_EQ("SCAN Files USING COVERING INDEX Files_name", candidatePlan(queries(called("*.mp3"))));
    EXPECT_EQ("SEARCH Folders USING COVERING INDEX Folders_name (name=?)",
        candidatePlan(queries(called("a", exact), std::nullopt, RowQueries::Table::folders)));
    EXPECT_EQ("SCAN Folders USING COVERING INDEX Folders_name",
        candidatePlan(queries(called("a"), std::nullopt, RowQueries::Table::folders)));
}

TEST_F(RowQueriesTest, foldersAndPathsAreFoundInTheirIndexAlone)
{
    const std::string range = "SEARCH Files USING COVERING INDEX Files_path (path>? AND path<?)";
    EXPECT_EQ(range, candidatePlan(queries({}, "/Music")));
    EXPECT_EQ(range, candidatePlan(queries(called("live"), "/Music")));
    EXPECT_EQ(range, candidatePlan(queries(called("/srv/media/Music/*.mp3"))));
    EXPECT_EQ("SEARCH Files USING COVERING INDEX Files_path (path=?)",
        candidatePlan(queries(called("/srv/media/Music/a.mp3", exact))));
    EXPECT_EQ("SEARCH Folders USING COVERING INDEX Folders_path (path>? AND path<?)",
        candidatePlan(queries({}, "/Music", RowQueries::Table::folders)));
}

TEST_F(RowQueriesTest, recentDeletionsAreFoundByTheirTime)
{
    Selection selection;
    selection.deleted = true;
    selection.changedSince = 5;
    EXPECT_EQ("SEARCH Files USING COVERING INDEX Files_last_updated_time (last_updated_time>?)",
        candidatePlan(queries(selection)));
    EXPECT_EQ("SEARCH Folders USING COVERING INDEX Folders_last_updated_time (last_updated_time>?)",
        candidatePlan(queries(selection, std::nullopt, RowQueries::Table::folders)));
}

TEST_F(RowQueriesTest, whatNoIndexKnowsTakesTheTableInOneGo)
{
    Selection selection;
    selection.categories = { 1, 2 };
    selection.largerThan = 1000;
    selection.changedSince = 5;
    EXPECT_EQ("none", candidatePlan(queries(selection)));
    EXPECT_EQ("none", candidatePlan(queries(called("edia/Mus"))));
    // By the primary key: no step that sorts, no index that would fetch the rows one by one.
    const std::string scan = "SEARCH Files USING INTEGER PRIMARY KEY (rowid>?)";
    EXPECT_EQ(scan, plan(queries(selection).scan()));
    selection.deleted = true;
    EXPECT_EQ(scan, plan(queries(selection).scan()));
    EXPECT_TRUE(queries(selection, std::nullopt, RowQueries::Table::folders).isHopeless());
    selection.largerThan.reset();
    EXPECT_EQ("SEARCH Folders USING INTEGER PRIMARY KEY (rowid>?)",
        plan(queries(selection, std::nullopt, RowQueries::Table::folders).scan()));
    EXPECT_EQ("SEARCH Files USING INTEGER PRIMARY KEY (rowid=?)", plan(queries(selection).row()));
}

TEST_F(RowQueriesTest, thePathsOfAFolderBeginWithItAndASlash)
{
    const Selection all;
    const RowQueries music = queries(all, "/Music");
    EXPECT_EQ((std::vector<std::variant<long long, std::string>> { "/Music/", "/Music0" }), music.candidates()->values);
    EXPECT_TRUE(music.accepts("/Music/a"));
    EXPECT_TRUE(music.accepts("/Music/\xff"));
    for (const char* other : { "/Music", "/Music0", "/Music.mp3", "/music/a", "/Musi", "" })
        EXPECT_FALSE(music.accepts(other)) << other;
    EXPECT_FALSE(queries({}, "").accepts("")); // the root itself is not below the root
    EXPECT_TRUE(queries({}, "").accepts("/a"));
}

TEST_F(RowQueriesTest, aPatternForPathsSeesTheVolumesRoot)
{
    EXPECT_TRUE(queries(called("media/Mus")).accepts("/Music"));
    EXPECT_TRUE(queries(called("*/Music")).accepts("/Music"));
    EXPECT_TRUE(queries(called("/srv/media", exact)).accepts(""));
    EXPECT_FALSE(queries(called("/srv/media", exact)).accepts("/srv/media"));
    EXPECT_FALSE(queries(called("/srv/*/Music")).isHopeless());
    EXPECT_TRUE(queries(called("/srv/other/*")).isHopeless());
    EXPECT_TRUE(queries(called("/home/*")).isHopeless());
    EXPECT_TRUE(queries(called("/srv/other/a", exact)).isHopeless());
}

TEST_F(RowQueriesTest, folderAndPatternTogetherNarrowTheRange)
{
    using Values = std::vector<std::variant<long long, std::string>>;
    EXPECT_EQ((Values { "/Music/Rock/", "/Music/Rock0" }),
        queries(called("/srv/media/Music/Rock/*"), "/Music").candidates()->values);
    EXPECT_EQ((Values { "/Music/", "/Music0" }), queries(called("/srv/media/M*"), "/Music").candidates()->values);
    EXPECT_EQ((Values { "/Music/Rock/", "/Music/Rock0" }),
        queries(called("/srv/media/Music/R*"), "/Music/Rock").candidates()->values);
}

} // namespace
