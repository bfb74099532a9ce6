#include "SystemHooks.h"
#include "VolumeTest.h"

#include "support/FakeClock.h"

namespace {

/// What a walk logs, whole.
class TreeWalkLogTest : public VolumeTest {
protected:
    TreeWalkLogTest() { initializeQuietly(); }

    /// The walk of a folder "Music" that holds nothing.
    std::vector<LogLine> logOfOneFolder()
    {
        volume.makeFolder("Music");
        walk("/Music");
        return loggedLines();
    }

    /// That log with a line before it.
    std::vector<LogLine> withFirstLine(const std::string& text) const
    {
        std::vector<LogLine> lines { info(text) };
        const std::vector<LogLine> rest = complete(summary("/Music", 0, 0, 0, 0), "1/0", 1);
        lines.insert(lines.end(), rest.begin(), rest.end());
        return lines;
    }

    std::vector<LogLine> complete(std::vector<LogLine> lines, const std::string& totals, int watched) const
    {
        lines.push_back(info("Finished walk. Walk started at " + root + "/Music\n"));
        lines.push_back(info("Total folders/files (re)indexed: " + totals + "\n"));
        lines.push_back(info("The time taken: 0\n"));
        lines.push_back(watching(watched));
        return lines;
    }

    ClockAt clock { 1700000000 };
};

TEST_F(TreeWalkLogTest, ofASmallTree)
{
    volume.writeFile("Music/a.mp3");
    volume.writeFile("Music/b.mp3");
    volume.writeFile("Music/Rock/c.mp3");
    walk("/Music");
    std::vector<LogLine> expected = summary("/Music", 2, 0, 0, 0);
    for (const LogLine& line : summary("/Music/Rock", 1, 0, 0, 0))
        expected.push_back(line);
    EXPECT_EQ(complete(expected, "2/3", 2), loggedLines());
}

TEST_F(TreeWalkLogTest, ofASecondWalkCountsEverythingSeen)
{
    volume.writeFile("Music/a.mp3");
    volume.writeFile("Music/Rock/c.mp3");
    walk("/Music");
    walk("/Music");
    std::vector<LogLine> expected = summary("/Music", 0, 0, 0, 0);
    for (const LogLine& line : summary("/Music/Rock", 0, 0, 0, 0))
        expected.push_back(line);
    EXPECT_EQ(complete(expected, "2/2", 2), loggedLines());
}

TEST_F(TreeWalkLogTest, ofThingsThatWent)
{
    volume.writeFile("Music/a.mp3");
    volume.writeFile("Music/Rock/c.mp3");
    walk("/Music");
    volume.remove("Music/a.mp3");
    volume.remove("Music/Rock");
    testing::internal::CaptureStdout();
    walk("/Music");
    EXPECT_EQ("Deleting file 1\n", testing::internal::GetCapturedStdout());
    std::vector<LogLine> expected { info("Removing " + root + "/Music/Rock \n") };
    for (const LogLine& line : summary("/Music", 0, 1, 0, 1))
        expected.push_back(line);
    EXPECT_EQ(complete(expected, "1/0", 1), loggedLines());
}

TEST_F(TreeWalkLogTest, ofTheThread)
{
    configure({ "/Music" });
    volume.makeFolder("Music");
    walkOnThread();
    EXPECT_EQ(withFirstLine("pthread_sigmask returned 0\n"), loggedLines());
    walkOnThread();
    std::vector<LogLine> expected = withFirstLine("Checking if the folder /Music exists in the path list");
    expected.insert(expected.begin(), info("pthread_sigmask returned 0\n"));
    EXPECT_EQ(expected, loggedLines());
}

TEST_F(TreeWalkLogTest, ofAStartFolderThatIsMissing)
{
    walk("/Music");
    EXPECT_EQ(complete(summary("/Music", 0, 0, 0, 0), "1/0", 0), loggedLines());
    EXPECT_EQ("", folders());
}

TEST_F(TreeWalkLogTest, tellsTheWholeSecondsThatTheWalkTook)
{
    const OnReaddir later([this](const std::string&, dirent* entry) {
        clock.set(1700000007);
        return entry;
    });
    logOfOneFolder();
    EXPECT_EQ(1, timesLogged(LOG_INFO, "The time taken: 7\n"));
}

TEST_F(TreeWalkLogTest, tellsOfEveryThousandthFolder)
{
    for (int folder = 0; folder < 2499; ++folder)
        volume.makeFolder("Music/" + std::to_string(folder));
    walk("/Music");
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Processed 1000 folders\n"));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Processed 2000 folders\n"));
    EXPECT_EQ(2, timesLoggedFrom("Processed "));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Total folders/files (re)indexed: 2500/0\n"));
}

TEST_F(TreeWalkLogTest, folderThatIsGoneRepeatsTheFiguresOfTheOneBefore)
{
    for (const char* file : { "Music/1", "Music/2", "Music/3" })
        volume.writeFile(file);
    volume.makeFolder("Music/Rock");
    const OnReaddir removeIt([this](const std::string&, dirent* entry) {
        if (entry == nullptr)
            volume.remove("Music/Rock");
        return entry;
    });
    walk("/Music");
    std::vector<LogLine> expected = summary("/Music", 3, 0, 0, 0);
    for (const LogLine& line : summary("/Music/Rock", 3, 0, 0, 0))
        expected.push_back(line);
    EXPECT_EQ(complete(expected, "2/3", 1), loggedLines());
    EXPECT_EQ("[/Music] root\n", folders());
}

TEST_F(TreeWalkLogTest, figuresStartAtNothingInTheNextFolder)
{
    volume.writeFile("Music/a/1");
    volume.writeFile("Music/2");
    volume.writeFile("Music/3");
    walk("/Music");
    expectSummary("/Music", 2, 0, 0, 0);
    expectSummary("/Music/a", 1, 0, 0, 0);
}

TEST_F(TreeWalkLogTest, listingOf1500MillisecondsTakesSomeTime)
{
    const SlowMachine slow(std::chrono::milliseconds(1500));
    const std::vector<LogLine> log = logOfOneFolder();
    EXPECT_EQ(withFirstLine("Taking some time for " + root + "/Music as list are file=0 folder=0\n"), log);
}

TEST_F(TreeWalkLogTest, listingOf1499MillisecondsDoesNot)
{
    const SlowMachine slow(std::chrono::milliseconds(1499));
    EXPECT_EQ(complete(summary("/Music", 0, 0, 0, 0), "1/0", 1), logOfOneFolder());
}

TEST_F(TreeWalkLogTest, slowListingTellsWhatItListed)
{
    volume.writeFile("Music/a");
    volume.writeFile("Music/b");
    volume.makeFolder("Music/Rock");
    walk("/Music");
    const SlowMachine slow(std::chrono::milliseconds(2000));
    walk("/Music");
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Taking some time for " + root + "/Music as list are file=2 folder=1\n"));
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Taking some time for " + root + "/Music/Rock as list are file=0 folder=0\n"));
}

TEST_F(TreeWalkLogTest, percentSignsStandAsTheyAre)
{
    volume.writeFile("Music/100%s %n%d.mp3");
    volume.makeFolder("Music/%s%n");
    walk("/Music");
    EXPECT_EQ(1, timesLogged(LOG_INFO, "For folder " + root + "/Music/%s%n"));
    volume.remove("Music/%s%n");
    walk("/Music");
    EXPECT_EQ(1, timesLogged(LOG_INFO, "Removing " + root + "/Music/%s%n \n"));
}

TEST_F(TreeWalkLogTest, lockIsTakenFolderByFolderAndFreedAfterTheSummary)
{
    volume.makeFolder("Music/Rock");
    std::vector<std::string> events;
    const OnSemWait onWait([&events](sem_t*) { return events.push_back("take"), false; });
    const OnSemPost onPost([&events] {
        const std::vector<LogLine> lines = loggedLines();
        events.push_back(lines.empty() ? "free" : "free after " + lines.back().text);
    });
    const OnStatement onStatement([&events](const std::string& sql, sqlite3*) {
        if (sql == "BEGIN" || sql == "COMMIT")
            events.push_back(sql);
    });
    const OnReaddir onRead([&](const std::string& folder, dirent* entry) {
        if (entry == nullptr)
            events.push_back(folder.substr(root.length()));
        return entry;
    });
    walk("/Music");
    const std::string freed = "free after Add folder count = 0, Delete folder count = 0";
    EXPECT_EQ((std::vector<std::string> { "take", "free", "take", "BEGIN", "/Music", "COMMIT", freed, "take", "BEGIN",
                  "/Music/Rock", "COMMIT", freed, "take", freed }),
        events); // first and last the catalogue's log, then its checkpoint
}

} // namespace
