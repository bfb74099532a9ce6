#include "ctl/status/FigureCache.h"

#include "ctl/Fnv.h"
#include "support/TemporaryFolder.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

namespace {

class FigureCacheTest : public testing::Test {
protected:
    FigureCacheTest()
    {
        setenv("XDG_CACHE_HOME", home.path("cache").c_str(), 1);
        figures.folders = 1;
        figures.deletedFolders = 2;
        figures.deletedFiles = 3;
        figures.newestChange = 4;
        figures.oldestFolder = -5;
        figures.kinds = { { { 6, 7 }, { 8, 9 }, { 10, 11 }, { 12, INT64_MAX } } };
    }
    ~FigureCacheTest() override { unsetenv("XDG_CACHE_HOME"); }

    TemporaryFolder home;
    CatalogueFigures figures;
};

TEST_F(FigureCacheTest, everyFigureComesBack)
{
    FigureCache().keep("/a", "state", figures);
    const auto found = FigureCache().find("/a", "state");
    ASSERT_TRUE(found);
    EXPECT_EQ(1, found->folders);
    EXPECT_EQ(2, found->deletedFolders);
    EXPECT_EQ(3, found->deletedFiles);
    EXPECT_EQ(4, found->newestChange);
    EXPECT_EQ(-5, found->oldestFolder);
    for (std::size_t i = 0; i < figures.kinds.size(); ++i) {
        EXPECT_EQ(figures.kinds[i].files, found->kinds[i].files);
        EXPECT_EQ(figures.kinds[i].bytes, found->kinds[i].bytes);
    }
}

TEST_F(FigureCacheTest, anotherStateOrCatalogueHasNone)
{
    FigureCache().keep("/a", "state", figures);
    EXPECT_FALSE(FigureCache().find("/a", "stat"));
    EXPECT_FALSE(FigureCache().find("/a", "state2"));
    EXPECT_FALSE(FigureCache().find("/b", "state"));
}

TEST_F(FigureCacheTest, theNewestOfACatalogueReplacesTheOldOne)
{
    FigureCache().keep("/a", "old", figures);
    FigureCache().keep("/b", "old", figures);
    figures.folders = 99;
    FigureCache().keep("/a", "new", figures);
    EXPECT_FALSE(FigureCache().find("/a", "old"));
    EXPECT_EQ(99, FigureCache().find("/a", "new")->folders);
    EXPECT_EQ(1, FigureCache().find("/b", "old")->folders);
}

TEST_F(FigureCacheTest, figuresThatMeantSomethingElseDoNotCount)
{
    FigureCache().keep("/a", "state", figures);
    const std::string name = fmt::format("cache/quarrow/figures-{:016x}", fnv("/a"));
    const std::string numbers = "6 7 8 9 10 11 12 9223372036854775807 1 2 3 4 -5\n";
    const auto write = [&](int meaning) {
        const std::string text
            = fmt::format("quarrowctl figures {}\n{:016x} 2\nstate\n{}", meaning, fnv("/a"), numbers);
        home.writeFile(name, text + fmt::format("{:016x}\n", fnv(text)));
    };
    write(2);
    EXPECT_TRUE(FigureCache().find("/a", "state"));
    write(1); // bytes as the catalogue has them
    EXPECT_FALSE(FigureCache().find("/a", "state"));
}

TEST_F(FigureCacheTest, nothingIsMadeInSomebodyElsesFolder)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root";
    constexpr unsigned stranger = 12345;
    ASSERT_EQ(0, chown(home.makeFolder("home").c_str(), stranger, stranger));
    for (const char* name : { "home/.cache", "home/.cache//" }) {
        setenv("XDG_CACHE_HOME", home.path(name).c_str(), 1);
        FigureCache().keep("/a", "state", figures);
        EXPECT_FALSE(home.exists("home/.cache"));
    }
    home.makeFolder("home/.cache"); // this user's own
    FigureCache().keep("/a", "state", figures);
    EXPECT_TRUE(FigureCache().find("/a", "state"));
}

} // namespace
