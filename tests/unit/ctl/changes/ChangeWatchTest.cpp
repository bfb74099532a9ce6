#include "ctl/changes/ChangeWatch.h"

#include "../SampleCatalogue.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

namespace {

using Catalogues = std::set<std::size_t>;

/// Two catalogues that are watched, as places 0 and 1.
class ChangeWatchTest : public ::testing::Test {
protected:
    ChangeWatchTest()
    {
        for (const std::size_t catalogue : watch.all())
            watch.renew(catalogue);
    }

    /// Gives the kernel two different things to report, of which none is about a catalogue.
    void changeAnotherFile()
    {
        const std::string path = first.folder.path(".quarrow/other");
        std::ofstream(path).close();
        std::remove(path.c_str());
    }

    SampleCatalogue first;
    SampleCatalogue second;
    ChangeWatch watch { { first.path(), second.path() } };
};

TEST_F(ChangeWatchTest, onlyWhatIsAboutACatalogueCounts)
{
    changeAnotherFile();
    EXPECT_EQ(Catalogues {}, watch.take());
    first.folder.writeFile(".quarrow/quarrow.db-new", "");
    EXPECT_EQ(Catalogues { 0 }, watch.take());
    second.run("update Files set size = 1; create table more(number int)");
    EXPECT_EQ(Catalogues { 1 }, watch.take());
    EXPECT_EQ(Catalogues {}, watch.take());
}

TEST_F(ChangeWatchTest, whenTheKernelLosesReportsEveryCatalogueMayHaveChanged)
{
    long long mostQueued = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> mostQueued;
    if (mostQueued <= 0 || mostQueued > 200000)
        GTEST_SKIP() << "the kernel keeps " << mostQueued << " reports";
    for (long long i = 0; i <= mostQueued / 2; ++i)
        changeAnotherFile();
    EXPECT_EQ((Catalogues { 0, 1 }), watch.take());
}

} // namespace
