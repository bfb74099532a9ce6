#include "config/StateFileTest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <future>

namespace {

/// What a user of the volume may have prepared where the state file belongs.
class PlantedStateFileTest : public StateFileTest {
protected:
    PlantedStateFileTest()
    {
        elsewhere.writeFile("target", stateText("1", "77"));
        clearLog();
    }

    void link(const std::string& target, const std::string& name) const
    {
        std::filesystem::create_symlink(target, folder.path(name));
    }

    void expectTargetUntouched() const { EXPECT_EQ(stateText("1", "77"), elsewhere.readFile("target")); }

    TemporaryFolder elsewhere;
};

TEST_F(PlantedStateFileTest, thatIsADanglingLinkMakesNothingWhereItLeads)
{
    link(elsewhere.path("new"), "state.xml");
    ::testing::internal::CaptureStdout();
    VolumeManagerConfig config(statePath);
    EXPECT_EQ("testXmlwriterMemory: Error at fopen\n", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ("0", record(config, 9));
    EXPECT_FALSE(elsewhere.exists("new"));
}

TEST_F(PlantedStateFileTest, thatIsALinkIsNotReadThrough)
{
    link(elsewhere.path("target"), "state.xml");
    EXPECT_EQ(thrownText, start());
    EXPECT_EQ(parseFailure(), loggedLines());
    expectTargetUntouched();
}

TEST_F(PlantedStateFileTest, thatBecomesALinkDoesNotBringTheTargetOntoTheVolume)
{
    VolumeManagerConfig config(statePath);
    elsewhere.writeFile("secret", "<secrets>42</secrets>");
    folder.remove("state.xml");
    link(elsewhere.path("secret"), "state.xml");
    EXPECT_EQ(thrownText, record(config, 9));
    EXPECT_EQ("[state.xml]", names());
    EXPECT_TRUE(std::filesystem::is_symlink(statePath)) << folder.readFile("state.xml");
    EXPECT_EQ("<secrets>42</secrets>", elsewhere.readFile("secret"));
}

TEST_F(PlantedStateFileTest, thatIsInAFolderThatIsALinkIsUsedIfThatIsOfTheDaemonsUser)
{
    elsewhere.writeFile("state.xml", stateText("1", "77"));
    link(elsewhere.path(), "linked");
    EXPECT_EQ("77", startWith(folder.path("linked/state.xml")));
    if (geteuid() != 0)
        return; // only root can give the link to somebody else
    constexpr uid_t nobody = 65534;
    ASSERT_EQ(0, lchown(folder.path("linked").c_str(), nobody, nobody));
    EXPECT_EQ(thrownText, startWith(folder.path("linked/state.xml")));
    EXPECT_EQ(parseFailure(), loggedLines());
    EXPECT_EQ(stateText("1", "77"), elsewhere.readFile("state.xml"));
}

TEST_F(PlantedStateFileTest, whoseFolderBecomesALinkIsLeftAlone)
{
    folder.makeFolder("kept");
    folder.writeFile("kept/state.xml", stateText("1", "2"));
    VolumeManagerConfig config(folder.path("kept/state.xml"));
    std::filesystem::rename(folder.path("kept"), folder.path("aside"));
    elsewhere.writeFile("state.xml", stateText("1", "77"));
    link(elsewhere.path(), "kept");
    EXPECT_EQ(thrownText, record(config, 9));
    EXPECT_EQ(stateText("1", "77"), elsewhere.readFile("state.xml"));
    EXPECT_EQ(stateText("1", "2"), folder.readFile("aside/state.xml"));
}

TEST_F(PlantedStateFileTest, thatIsALinkUnderTheTemporaryNameIsNotWrittenThrough)
{
    writeState(stateText("1", "2"));
    link(elsewhere.path("target"), "state.xml.tmp");
    VolumeManagerConfig config(statePath);
    EXPECT_EQ(stateText("NOW", "9"), recorded(config, 9));
    EXPECT_EQ("[state.xml]", names());
    EXPECT_FALSE(std::filesystem::is_symlink(statePath));
    expectTargetUntouched();
}

TEST_F(PlantedStateFileTest, thatIsADanglingLinkUnderTheTemporaryNameMakesNothingWhereItLeads)
{
    writeState(stateText("1", "2"));
    link(elsewhere.path("new"), "state.xml.tmp");
    VolumeManagerConfig config(statePath);
    EXPECT_EQ(stateText("NOW", "9"), recorded(config, 9));
    EXPECT_FALSE(elsewhere.exists("new"));
}

TEST_F(PlantedStateFileTest, thatIsASecondNameUnderTheTemporaryNameIsNotWrittenInto)
{
    writeState(stateText("1", "2"));
    std::filesystem::create_hard_link(elsewhere.path("target"), folder.path("state.xml.tmp"));
    VolumeManagerConfig config(statePath);
    EXPECT_EQ(stateText("NOW", "9"), recorded(config, 9));
    expectTargetUntouched();
}

TEST_F(PlantedStateFileTest, doesNotPullOtherFilesIn)
{
    elsewhere.writeFile("secret", "1234567890");
    writeState("<!DOCTYPE Quarrow [<!ENTITY e SYSTEM \"" + elsewhere.path("secret")
        + "\">]><Quarrow><Volume><last_purge_time>&e;</last_purge_time></Volume><x>&e;</x></Quarrow>");
    VolumeManagerConfig config(statePath);
    EXPECT_EQ(0, config.getLastPurgeTime());
    config.setLastPurgeTime(9);
    EXPECT_EQ("9", start());
    EXPECT_EQ(std::string::npos, folder.readFile("state.xml").find("1234567890"));
}

TEST_F(PlantedStateFileTest, withEntitiesForItsDeclarationsIsRefused)
{
    const std::string rest = "]><Quarrow><Volume><last_purge_time>5</last_purge_time></Volume></Quarrow>";
    writeState("<!DOCTYPE Quarrow [<!ENTITY e 'x'>" + rest);
    EXPECT_EQ("5", start());
    for (const std::string value : { "' '", "SYSTEM 'elsewhere'" }) {
        writeState("<!DOCTYPE Quarrow [<!ENTITY % e " + value + ">" + rest);
        EXPECT_EQ(thrownText, start()) << value;
        EXPECT_EQ(parseFailure(), loggedLines());
        clearLog();
    }
}

TEST_F(PlantedStateFileTest, thatIsAPipeIsNotWaitedFor)
{
    ASSERT_EQ(0, mkfifo(statePath.c_str(), 0600));
    std::future<std::string> started = std::async(std::launch::async, [this] { return start(); });
    const bool waited = started.wait_for(std::chrono::seconds(30)) == std::future_status::timeout;
    EXPECT_FALSE(waited) << "a volume with a pipe there would keep the daemon from starting";
    if (waited)
        close(open(statePath.c_str(), O_WRONLY | O_NONBLOCK)); // ends its input
    EXPECT_EQ(thrownText, started.get());
}

TEST_F(PlantedStateFileTest, thatIsAPipeUnderTheTemporaryNameIsNotWaitedFor)
{
    writeState(stateText("1", "2"));
    ASSERT_EQ(0, mkfifo(folder.path("state.xml.tmp").c_str(), 0600));
    VolumeManagerConfig config(statePath);
    EXPECT_EQ(stateText("NOW", "9"), recorded(config, 9));
}

TEST_F(PlantedStateFileTest, thatIsAPipeIsNotReadEvenWithAStateInIt)
{
    ASSERT_EQ(0, mkfifo(statePath.c_str(), 0600));
    const int writer = open(statePath.c_str(), O_RDWR | O_NONBLOCK);
    const std::string text = stateText("1", "77");
    ASSERT_EQ(static_cast<ssize_t>(text.length()), ::write(writer, text.data(), text.length()));
    EXPECT_EQ(thrownText, start());
    close(writer);
}

TEST_F(PlantedStateFileTest, thatIsLargeIsRefusedUnread)
{
    const std::string state = "<Quarrow><Volume><last_purge_time>5</last_purge_time></Volume>";
    const std::string end = "</Quarrow>";
    const std::string filler(16384 - state.length() - end.length(), ' ');
    writeState(state + filler + end);
    EXPECT_EQ("5", start());
    writeState(state + filler + " " + end);
    EXPECT_EQ(thrownText, start());
    EXPECT_EQ(parseFailure(), loggedLines());
}

TEST_F(PlantedStateFileTest, thatWouldGrowTooLargeIsNotRewritten)
{
    const std::string state = "<Quarrow><Volume><last_purge_time>5</last_purge_time></Volume>";
    const std::string end = "</Quarrow>";
    const std::string whole = state + std::string(16384 - state.length() - end.length(), ' ') + end;
    writeState(whole);
    VolumeManagerConfig config(statePath);
    config.setLastPurgeTime(1234567890);
    EXPECT_EQ(whole, folder.readFile("state.xml"));
    EXPECT_EQ("5", start());
}

TEST_F(PlantedStateFileTest, ofManyAttributesIsNotParsed)
{
    std::string attributes;
    for (int number = 0; number < 100000; ++number)
        attributes += " a" + std::to_string(number) + "=\"\"";
    writeState("<Quarrow" + attributes + "><Volume><last_purge_time>5</last_purge_time></Volume></Quarrow>");
    EXPECT_EQ(thrownText, start()) << "parsing it would hold up every volume for minutes";
}

} // namespace
