#include "config/StateFileTest.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <iterator>
#include <thread>
#include <type_traits>

static_assert(std::has_virtual_destructor_v<VolumeManagerConfig>);

namespace {

using VolumeManagerConfigTest = StateFileTest;

TEST_F(VolumeManagerConfigTest, isMadeWithBothTimesZeroWhenThereIsNone)
{
    ::testing::internal::CaptureStdout();
    VolumeManagerConfig config(statePath);
    EXPECT_EQ(0, config.getLastPurgeTime());
    EXPECT_EQ(stateText("0", "0"), folder.readFile("state.xml"));
    EXPECT_EQ("[state.xml]", names());
    EXPECT_EQ("0", start());
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(VolumeManagerConfigTest, isMadeReadableForOtherPrograms)
{
    const mode_t former = umask(022);
    VolumeManagerConfig config(statePath);
    struct stat status = {};
    EXPECT_EQ(0, stat(statePath.c_str(), &status));
    EXPECT_EQ(0100644U, status.st_mode);
    config.setLastPurgeTime(5);
    EXPECT_EQ(0, stat(statePath.c_str(), &status));
    EXPECT_EQ(0100644U, status.st_mode);
    umask(former);
}

TEST_F(VolumeManagerConfigTest, isMadeInTheCurrentFolderWhenItsPathHasNone)
{
    const std::filesystem::path former = std::filesystem::current_path();
    std::filesystem::current_path(folder.path());
    {
        VolumeManagerConfig config("state.xml");
        EXPECT_EQ("5", record(config, 5));
    }
    std::filesystem::current_path(former);
    EXPECT_EQ("5", start());
    EXPECT_EQ("[state.xml]", names());
}

TEST_F(VolumeManagerConfigTest, givesItsPurgeTime)
{
    writeState(stateText("1700000000", "1600000000"));
    EXPECT_EQ("1600000000", start());
    EXPECT_EQ(stateText("1700000000", "1600000000"), folder.readFile("state.xml")); // a start alone writes nothing
    EXPECT_EQ("[state.xml]", names());
}

TEST_F(VolumeManagerConfigTest, isReadAsNumbersAreReadInC)
{
    for (const auto& [text, time] : std::vector<std::pair<std::string, std::string>> { { " \n\t42", "42" },
             { "42 or so", "42" }, { "-3", "-3" }, { "+8", "8" }, { "none", "0" }, { "0x10", "0" }, { "", "0" },
             { " ", "0" }, { "2147483647", "2147483647" }, { "&#52;2", "42" } }) {
        writeState(stateText("1", text));
        EXPECT_EQ(time, start()) << text;
    }
}

TEST_F(VolumeManagerConfigTest, mayLackAnything)
{
    for (const std::string content :
        { "<Quarrow/>", "<Quarrow>text</Quarrow>", "<Quarrow><Version>1.0</Version></Quarrow>",
            "<Quarrow><Volume/></Quarrow>", "<Quarrow><Version/><Volume><last_purge_time/></Volume></Quarrow>",
            "<Quarrow><Volume><last_updated_time>7</last_updated_time></Volume></Quarrow>" }) {
        writeState(content);
        EXPECT_EQ("0", start()) << content;
    }
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(VolumeManagerConfigTest, mayHoldWhatNobodyKnows)
{
    writeState("<!-- a --><Quarrow x=\"1\"><!-- b --><Other><last_purge_time>1</last_purge_time></Other>"
               "<last_purge_time>2</last_purge_time><Volume y=\"2\"><!-- c --><last_purge_time>3</last_purge_time>"
               "<Deeper><last_purge_time>4</last_purge_time></Deeper><LAST_PURGE_TIME>5</LAST_PURGE_TIME></Volume>"
               "<volume><last_purge_time>6</last_purge_time></volume></Quarrow>");
    EXPECT_EQ("3", start());
}

TEST_F(VolumeManagerConfigTest, givesTheLastOfSeveralTimes)
{
    writeState("<Quarrow><Volume><last_purge_time>1</last_purge_time><last_purge_time>2</last_purge_time></Volume>"
               "<Volume><last_purge_time>3</last_purge_time><last_purge_time/></Volume><Volume/></Quarrow>");
    EXPECT_EQ("3", start());
}

TEST_F(VolumeManagerConfigTest, withAnotherRootElementIsNamedOnStandardOutputAndReadsAsZero)
{
    for (const std::string root : { "Other", "quarrow", "Volume" }) {
        writeState("<" + root + "><Volume><last_purge_time>5</last_purge_time></Volume></" + root + ">");
        ::testing::internal::CaptureStdout();
        EXPECT_EQ("0", start());
        EXPECT_EQ("Badly formed xml \n", ::testing::internal::GetCapturedStdout()) << root;
    }
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(VolumeManagerConfigTest, thatIsNoXmlIsLoggedAndThrownAsBareText)
{
    for (const std::string content : { "", "\n", "text", "<Quarrow>", "<Quarrow></Volume>", "<Quarrow/><Quarrow/>" }) {
        clearLog();
        writeState(content);
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(thrownText, start()) << content;
        EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
        EXPECT_EQ(parseFailure(), loggedLines()) << content;
        EXPECT_EQ(content, folder.readFile("state.xml"));
    }
}

TEST_F(VolumeManagerConfigTest, holdsThePurgeTimeAndTheTimeOfItsUpdateOnceAPurgeIsRecorded)
{
    VolumeManagerConfig config(statePath);
    EXPECT_EQ(stateText("NOW", "1234567890"), recorded(config, 1234567890));
    EXPECT_EQ(1234567890, config.getLastPurgeTime());
    EXPECT_EQ("1234567890", start());
    EXPECT_EQ(stateText("NOW", "-7"), recorded(config, -7));
    EXPECT_EQ(stateText("NOW", "-2147483648"), recorded(config, INT_MIN));
    EXPECT_EQ(stateText("NOW", "0"), recorded(config, 0));
    EXPECT_EQ(0, config.getLastPurgeTime());
    EXPECT_EQ("[state.xml]", names());
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(VolumeManagerConfigTest, keepsWhatElseItHoldsWhenAPurgeIsRecorded)
{
    writeState("<?xml version=\"1.0\"?>\n<!-- by hand -->\n<Quarrow a=\"b\">\n  <Version>7</Version>\n  <Other/>\n"
               "  <Volume>\n    <last_updated_time>1</last_updated_time>\n    <last_purge_time/>\n    <More>x</More>\n"
               "  </Volume>\n  <Volume><last_purge_time>3<b/></last_purge_time></Volume>\n</Quarrow>\n");
    VolumeManagerConfig config(statePath);
    EXPECT_EQ("<?xml version=\"1.0\"?>\n<!-- by hand -->\n<Quarrow a=\"b\">\n  <Version>7</Version>\n  <Other/>\n"
              "  <Volume>\n    <last_updated_time>NOW</last_updated_time>\n    <last_purge_time>9</last_purge_time>\n"
              "    <More>x</More>\n  </Volume>\n  <Volume><last_purge_time>9</last_purge_time></Volume>\n</Quarrow>\n",
        recorded(config, 9));
    EXPECT_EQ(9, config.getLastPurgeTime());
}

TEST_F(VolumeManagerConfigTest, isNotGivenAPurgeTimeThatItDoesNotHave)
{
    const std::string before = "<?xml version=\"1.0\"?>\n<Quarrow><Volume><last_updated_time>";
    const std::string after = "</last_updated_time></Volume></Quarrow>\n";
    writeState(before + "1" + after);
    VolumeManagerConfig config(statePath);
    EXPECT_EQ(before + "NOW" + after, recorded(config, 9));
    EXPECT_EQ(0, config.getLastPurgeTime());
    EXPECT_EQ("0", start());
}

TEST_F(VolumeManagerConfigTest, isNotGivenAnUpdateTimeThatItDoesNotHave)
{
    const std::string before = "<?xml version=\"1.0\"?>\n<Quarrow><Volume><last_purge_time>";
    const std::string after = "</last_purge_time></Volume></Quarrow>\n";
    writeState(before + "1" + after);
    VolumeManagerConfig config(statePath);
    EXPECT_EQ(before + "9" + after, recorded(config, 9));
    EXPECT_EQ(9, config.getLastPurgeTime());
}

TEST_F(VolumeManagerConfigTest, takesTimesOnlyRightInsideItsVolumes)
{
    const std::string text = "<?xml version=\"1.0\"?>\n<Quarrow><last_purge_time>1</last_purge_time><Volume><x>"
                             "<last_purge_time>2</last_purge_time></x></Volume></Quarrow>\n";
    writeState(text);
    VolumeManagerConfig config(statePath);
    EXPECT_EQ(text, recorded(config, 9));
    EXPECT_EQ(0, config.getLastPurgeTime());
}

TEST_F(VolumeManagerConfigTest, withAnotherRootElementIsWrittenAgainAsItWas)
{
    writeState("<Other><Volume><last_purge_time>5</last_purge_time></Volume></Other>");
    ::testing::internal::CaptureStdout();
    VolumeManagerConfig config(statePath);
    EXPECT_EQ("<?xml version=\"1.0\"?>\n<Other><Volume><last_purge_time>5</last_purge_time></Volume></Other>\n",
        recorded(config, 9));
    EXPECT_EQ("Badly formed xml \n", ::testing::internal::GetCapturedStdout()); // once, when it was loaded
    EXPECT_EQ(0, config.getLastPurgeTime());
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(VolumeManagerConfigTest, isLoggedAndThrownWhenItWentBadBeforeAPurgeIsRecorded)
{
    writeState(stateText("1", "2"));
    VolumeManagerConfig config(statePath);
    writeState("<Quarrow>");
    EXPECT_EQ(thrownText, record(config, 9));
    EXPECT_EQ(parseFailure(), loggedLines());
    EXPECT_EQ(2, config.getLastPurgeTime());
    EXPECT_EQ("<Quarrow>", folder.readFile("state.xml"));
    EXPECT_EQ("[state.xml]", names());
}

TEST_F(VolumeManagerConfigTest, isNotMadeAgainWhenItHasGoneAndNothingIsRecorded)
{
    writeState(stateText("1", "2"));
    VolumeManagerConfig config(statePath);
    folder.remove("state.xml");
    ::testing::internal::CaptureStdout();
    EXPECT_EQ("2", record(config, 9));
    EXPECT_EQ("", names());
    folder.makeFolder("state.xml");
    EXPECT_EQ("2", record(config, 9));
    EXPECT_EQ("[state.xml]", names());
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(VolumeManagerConfigTest, isReadAfreshForEachPurge)
{
    writeState(stateText("1", "2"));
    VolumeManagerConfig config(statePath);
    const std::string changed = "<?xml version=\"1.0\"?>\n<Quarrow><Version>2.0</Version></Quarrow>\n";
    writeState(changed);
    EXPECT_EQ(changed, recorded(config, 9));
    EXPECT_EQ(2, config.getLastPurgeTime());
}

TEST_F(VolumeManagerConfigTest, isReplacedAsAWholeSoThatAReaderHasTheOldOneOrTheNewOne)
{
    writeState(stateText("1", "2"));
    VolumeManagerConfig config(statePath);
    std::ifstream reader(statePath, std::ios::binary);
    config.setLastPurgeTime(9);
    EXPECT_EQ(stateText("1", "2"), std::string(std::istreambuf_iterator<char>(reader), {}));
    EXPECT_EQ("9", start());
}

TEST_F(VolumeManagerConfigTest, keepsItsEncoding)
{
    const std::string utf8 = "<?xml version=\"1.0\" encoding=\"UTF-16\"?><Quarrow><Volume><last_purge_time>5"
                             "</last_purge_time></Volume></Quarrow>";
    std::string utf16 = "\xff\xfe";
    for (const char c : utf8)
        utf16 += std::string(1, c) + std::string(1, '\0');
    writeState(utf16);
    VolumeManagerConfig config(statePath);
    EXPECT_EQ("9", record(config, 9));
    EXPECT_EQ("9", start());
    writeState("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<Quarrow><V n=\"\xe9\"/></Quarrow>\n");
    EXPECT_EQ(
        "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<Quarrow><V n=\"\xe9\"/></Quarrow>\n", recorded(config, 9));
}

TEST_F(VolumeManagerConfigTest, mayBeAnywhere)
{
    for (const std::string name :
        { "with blank", "100%25", "a#b?c=d", "x://y", "caf\xe9\xff", "a&b;c", "\"'<>|*", "%41" }) {
        const std::string path = folder.makeFolder(name) + "/state.xml";
        EXPECT_EQ("0", startWith(path)) << name;
        VolumeManagerConfig config(path);
        EXPECT_EQ("9", record(config, 9)) << name;
        EXPECT_EQ("9", startWith(path)) << name;
    }
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(VolumeManagerConfigTest, mayHaveAPathOfThousandsOfBytes)
{
    std::string below;
    while (below.length() < 3000)
        below += std::string(200, 'd') + "/";
    folder.makeFolder(below);
    const std::string path = folder.path(below) + "state.xml";
    EXPECT_EQ("0", startWith(path));
    VolumeManagerConfig config(path);
    EXPECT_EQ("9", record(config, 9));
    EXPECT_EQ("9", startWith(path));
}

TEST_F(VolumeManagerConfigTest, ofEachVolumeIsUsedByItsOwnThread)
{
    std::vector<std::string> results(4);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < results.size(); ++i)
        threads.emplace_back([&, i] {
            const std::string path = folder.path("volume" + std::to_string(i) + ".xml");
            for (int t = 1; t <= 200; ++t) {
                VolumeManagerConfig config(path);
                if (record(config, t) != std::to_string(t) || startWith(path) != std::to_string(t))
                    results[i] += " " + std::to_string(t);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const std::string& failures : results)
        EXPECT_EQ("", failures);
    EXPECT_EQ("[volume0.xml][volume1.xml][volume2.xml][volume3.xml]", names());
}

/// The purge thread asks whether a purge is due while the control loop is at one.
TEST_F(VolumeManagerConfigTest, isAskedForItsPurgeTimeWhileOneIsRecorded)
{
    VolumeManagerConfig config(statePath);
    std::thread other([&config] {
        for (int t = 1; t <= 200; ++t)
            config.setLastPurgeTime(t);
    });
    int last = 0;
    while (last < 200) {
        const int next = config.getLastPurgeTime();
        EXPECT_LE(last, next);
        last = next;
    }
    other.join();
}

TEST_F(VolumeManagerConfigTest, isStampedWhateverTheOrderOfItsTimes)
{
    const auto state = [](const std::string& updated, const std::string& purged) {
        const std::string times
            = "<last_purge_time>" + purged + "</last_purge_time><last_updated_time>" + updated + "</last_updated_time>";
        return "<?xml version=\"1.0\"?>\n<Quarrow><Volume>" + times + times + "</Volume></Quarrow>\n";
    };
    writeState(state("1", "2"));
    VolumeManagerConfig config(statePath);
    EXPECT_EQ(state("NOW", "9"), recorded(config, 9));
    EXPECT_EQ(9, config.getLastPurgeTime());
}

TEST_F(VolumeManagerConfigTest, looksAtElementsAlone)
{
    const std::string text = "<?xml version=\"1.0\"?>\n<Quarrow><Volume><?last_purge_time 5?></Volume></Quarrow>\n";
    writeState(text);
    VolumeManagerConfig config(statePath);
    EXPECT_EQ(text, recorded(config, 9));
    EXPECT_EQ(0, config.getLastPurgeTime());
}

TEST_F(VolumeManagerConfigTest, hasItsNameOnceItIsComplete)
{
    const int notify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_LE(0, inotify_add_watch(notify, folder.path().c_str(), IN_CREATE | IN_MODIFY | IN_MOVED_TO));
    EXPECT_EQ("0", start());
    std::string seen;
    alignas(inotify_event) char buffer[4096];
    for (ssize_t n = read(notify, buffer, sizeof buffer); n > 0; n = read(notify, buffer, sizeof buffer))
        for (const char* at = buffer; at < buffer + n;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            if (event->len != 0 && std::string(event->name) == "state.xml") // without a name it shows under a number
                seen += (event->mask & IN_MODIFY) != 0 ? "written " : "named ";
            at += sizeof *event + event->len;
        }
    close(notify);
    EXPECT_EQ("named ", seen);
}

TEST_F(VolumeManagerConfigTest, leavesNoDescriptorOpen)
{
    const auto openDescriptors = [] {
        std::string all;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            all += entry.path().filename().string() + " ";
        return all;
    };
    const std::string before = openDescriptors();
    for (const std::string& content : { stateText("1", "2"), std::string("<Quarrow>"), std::string("<Other/>") }) {
        writeState(content);
        start();
        try {
            VolumeManagerConfig(statePath).setLastPurgeTime(3);
        } catch (const char*) {
            EXPECT_EQ("<Quarrow>", content);
        }
    }
    folder.remove("state.xml");
    EXPECT_EQ("0", start());
    EXPECT_EQ(before, openDescriptors());
}

TEST_F(VolumeManagerConfigTest, isWrittenInAnotherEncodingWhenItsOwnCannotBeReadBack)
{
    writeState(
        "<?xml version=\"1.0\" encoding=\"UTF-7\"?>\n<Quarrow><Volume><last_purge_time>1</last_purge_time></Volume>"
        "</Quarrow>");
    VolumeManagerConfig config(statePath);
    config.setLastPurgeTime(9);
    EXPECT_EQ("9", start());
}

} // namespace
