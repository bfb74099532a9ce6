#include "ctl/status/CatalogueFigures.h"

#include "../SampleCatalogue.h"
#include "ctl/Catalogue.h"

#include <gtest/gtest.h>

namespace {

void insertFile(const SampleCatalogue& sample, int category, const std::string& size, bool isDeleted, int updated)
{
    sample.run("insert into Files(folder_id, path, name, category, size, modified_time, created_time, is_deleted,"
               " last_updated_time) values(1, '/f', 'f', "
        + std::to_string(category) + ", " + size + ", 1, 1, " + (isDeleted ? "1" : "0") + ", " + std::to_string(updated)
        + ")");
}

void insertFolder(const SampleCatalogue& sample, bool isDeleted, int updated)
{
    sample.run("insert into Folders(parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)"
               " values(-1, '/d', 'd', 1, 1, "
        + std::string(isDeleted ? "1" : "0") + ", " + std::to_string(updated) + ")");
}

CatalogueFigures figuresOf(const SampleCatalogue& sample)
{
    const Catalogue catalogue(sample.path());
    return readFigures(catalogue, [](double) {});
}

TEST(CatalogueFiguresTest, anEmptyCatalogueHasNone)
{
    const SampleCatalogue sample;
    const CatalogueFigures figures = figuresOf(sample);
    EXPECT_EQ(0, figures.folders);
    EXPECT_EQ(0, figures.all().files);
    EXPECT_EQ(0, figures.newestChange);
}

TEST(CatalogueFiguresTest, rowsCountByCategoryAndDeletion)
{
    const SampleCatalogue sample;
    for (const int category : { 1, 2, 2, 3, 3, 3, 4, 0, 5, -1 })
        insertFile(sample, category, "10", false, 100);
    insertFile(sample, 1, "1000", true, 400);
    insertFolder(sample, false, 200);
    insertFolder(sample, false, 300);
    insertFolder(sample, true, 90);
    const CatalogueFigures figures = figuresOf(sample);
    EXPECT_EQ(1, figures.kinds[0].files);
    EXPECT_EQ(20, figures.kinds[1].bytes);
    EXPECT_EQ(3, figures.kinds[2].files);
    EXPECT_EQ(4, figures.kinds[3].files); // what is no category is something else
    EXPECT_EQ(100, figures.all().bytes);
    EXPECT_EQ(10, figures.all().files);
    EXPECT_EQ(1, figures.deletedFiles);
    EXPECT_EQ(2, figures.folders);
    EXPECT_EQ(1, figures.deletedFolders);
    EXPECT_EQ(400, figures.newestChange);
    EXPECT_EQ(90, figures.oldestFolder);
}

TEST(CatalogueFiguresTest, impossibleSizesDoNotWrap)
{
    const SampleCatalogue sample;
    insertFile(sample, 1, "9223372036854775807", false, 1);
    insertFile(sample, 1, "1", false, 1);
    insertFile(sample, 2, "9223372036854775807", false, 1);
    const CatalogueFigures figures = figuresOf(sample);
    EXPECT_EQ(INT64_MAX, figures.kinds[0].bytes);
    EXPECT_EQ(INT64_MAX, figures.all().bytes);
}

TEST(CatalogueFiguresTest, aSizeThatWasCutTo32BitsIsPutRight)
{
    const SampleCatalogue sample;
    insertFile(sample, 1, "-1073741824", false, 1);
    EXPECT_EQ(3221225472LL, figuresOf(sample).kinds[0].bytes);
}

TEST(CatalogueFiguresTest, progressIsToldInBetween)
{
    const SampleCatalogue sample;
    sample.run(
        "with recursive n(i) as (select 1 union all select i + 1 from n where i < 50000) insert into Files(folder_id,"
        " path, name, category, size, modified_time, created_time, is_deleted, last_updated_time)"
        " select 1, '/f', 'f', 1, 1, 1, 1, 0, 1 from n");
    std::vector<double> told;
    const Catalogue catalogue(sample.path());
    EXPECT_EQ(50000, readFigures(catalogue, [&told](double part) { told.push_back(part); }).all().files);
    ASSERT_EQ(2U, told.size());
    EXPECT_NEAR(0.4, told[0], 0.01);
    EXPECT_NEAR(0.8, told[1], 0.01);
}

} // namespace
