#include "ctl/find/RowSearch.h"

#include "SearchedCatalogue.h"
#include "ctl/Catalogue.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

class RowSearchTest : public testing::Test {
protected:
    /// All rows, one per line, as path and size.
    std::string found(const Selection& selection, const std::optional<std::string>& under = std::nullopt,
        RowQueries::Table table = RowQueries::Table::files) const
    {
        const Catalogue catalogue(made.path());
        const std::string root = "/srv/media";
        RowSearch search(catalogue, table, selection, root, under);
        std::string text;
        std::vector<Row> batch;
        for (bool goesOn = true; goesOn;) {
            batch.clear();
            goesOn = search.next(batch);
            for (const Row& row : batch)
                text += row.path + " " + std::to_string(row.size) + "\n";
        }
        return text;
    }

    static Selection called(const std::string& pattern)
    {
        Selection selection;
        selection.pattern.emplace(pattern);
        return selection;
    }

    /// Files /many/1 to /many/COUNT, each of as many bytes.
    void addMany(int count) const
    {
        made.change("with recursive each(n) as (select 1 union all select n + 1 from each where n < "
            + std::to_string(count)
            + ") insert into Files(folder_id, created_time, path, name, category, size, modified_time, is_deleted, "
              "last_updated_time) select 1, 1, '/many/' || n, n, 4, n, 1, 0, 1 from each");
    }

    SearchedCatalogue made;
};

TEST_F(RowSearchTest, liveRowsOrDeletedOnes)
{
    made.addFile("/a.mp3");
    made.addFile("/b.mp3", "2, 100, 1000, 1, 2000");
    EXPECT_EQ("/a.mp3 100\n", found({}));
    EXPECT_EQ("/a.mp3 100\n", found(called(".mp3")));
    Selection selection;
    selection.deleted = true;
    EXPECT_EQ("/b.mp3 100\n", found(selection));
}

TEST_F(RowSearchTest, byCategoryAndSize)
{
    made.addFile("/1", "1, 10, 1, 0, 1");
    made.addFile("/2", "2, 20, 1, 0, 1");
    made.addFile("/3", "3, 30, 1, 0, 1");
    Selection selection;
    selection.categories = { 1, 3 };
    EXPECT_EQ("/1 10\n/3 30\n", found(selection));
    selection.largerThan = 10;
    EXPECT_EQ("/3 30\n", found(selection));
}

TEST_F(RowSearchTest, aSizeThatLostItsUpperBitsIsTheSmallestThatItCanBe)
{
    made.addFile("/three GiB", "1, -1073741824, 1, 0, 1");
    Selection selection;
    selection.largerThan = 3221225471;
    EXPECT_EQ("/three GiB 3221225472\n", found(selection));
    selection.largerThan = 3221225472;
    EXPECT_EQ("", found(selection));
}

TEST_F(RowSearchTest, whatIsThereChangedWhenItWasModifiedWhatIsGoneWhenItWasDeleted)
{
    made.addFile("/old row, new file", "1, 1, 500, 0, 100");
    made.addFile("/new row, old file", "1, 1, 100, 0, 500");
    made.addFile("/gone of late", "1, 1, 100, 1, 500");
    made.addFile("/gone long since", "1, 1, 500, 1, 100");
    Selection selection;
    selection.changedSince = 500;
    EXPECT_EQ("/old row, new file 1\n", found(selection));
    selection.deleted = true;
    EXPECT_EQ("/gone of late 1\n", found(selection));
}

TEST_F(RowSearchTest, foldersAreATableOfTheirOwn)
{
    made.addFolder("");
    made.addFolder("/Music");
    made.addFolder("/Music/Rock");
    made.addFile("/Music/a.mp3");
    constexpr auto folders = RowQueries::Table::folders;
    EXPECT_EQ(" 0\n/Music 0\n/Music/Rock 0\n", found({}, std::nullopt, folders));
    EXPECT_EQ("/Music/Rock 0\n", found({}, "/Music", folders));
    EXPECT_EQ("/Music/Rock 0\n", found(called("R*"), std::nullopt, folders));
    EXPECT_EQ("/Music 0\n/Music/Rock 0\n", found(called("media/Mus"), std::nullopt, folders));
}

TEST_F(RowSearchTest, moreThanABatchIsFoundOnceEach)
{
    addMany(5000);
    made.addFile("/other", "4, 7, 1, 0, 1");
    std::string all;
    for (int n = 1; n <= 5000; ++n)
        all += "/many/" + std::to_string(n) + " " + std::to_string(n) + "\n";
    EXPECT_EQ(all + "/other 7\n", found({}));
    EXPECT_EQ(all, found({}, "/many"));
    EXPECT_EQ(all, found(called("/many/")));
}

TEST_F(RowSearchTest, moreThanTheCandidatesThatAreKeptAreFoundOnceEach)
{
    addMany(12001);
    made.addFile("/other", "4, 7, 1, 0, 1");
    Selection selection = called("*[0-9]*");
    const std::string found12001 = found(selection);
    EXPECT_EQ(12001, std::count(found12001.begin(), found12001.end(), '\n'));
    EXPECT_EQ(std::string::npos, found12001.find("other"));
    EXPECT_EQ(found12001, found({}, "/many"));
}

TEST_F(RowSearchTest, noTransactionIsOpenBetweenBatches)
{
    addMany(9000);
    for (const auto& [selection, left] : { std::pair(Selection(), 8000), std::pair(called("*[0-9]"), 7000) }) {
        const Catalogue catalogue(made.path());
        const std::string root = "/srv/media";
        RowSearch search(catalogue, RowQueries::Table::files, selection, root, std::nullopt);
        std::vector<Row> batch;
        ASSERT_TRUE(search.next(batch));
        // This catalogue has a rollback journal: a reader inside a transaction would keep the writer out.
        made.change("delete from Files where file_id > " + std::to_string(left));
        while (search.next(batch)) { }
        EXPECT_EQ(static_cast<std::size_t>(left), batch.size());
    }
}

} // namespace
