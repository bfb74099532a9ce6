#include "watch/Tickle.h"

#include "watch/SelectAndSystem.h"
#include "watch/WatcherFixture.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

/// The touch of ".tickle".
class TickleTest : public WatcherFixture { };

TEST_F(TickleTest, ordinaryPathsKeepThePlainCommand)
{
    const std::string path = folder.makeFolder("Music/A-Z_0.9,+:@%=");
    touchTickle(path);
    EXPECT_EQ(std::vector<std::string> { "touch " + path + "/.tickle" }, commandsRun());
    EXPECT_TRUE(folder.exists("Music/A-Z_0.9,+:@%=/.tickle"));
}

TEST_F(TickleTest, aFileThatIsThereKeepsItsContent)
{
    folder.writeFile("a/.tickle", "old");
    touchTickle(folder.path("a"));
    EXPECT_EQ("old", folder.readFile("a/.tickle"));
}

TEST_F(TickleTest, noNameReachesTheShell)
{
    fs::current_path(folder.path());
    for (const std::string name : { "$(touch pwned) \"'; x", "a b", "`touch pwned`", "x;touch pwned;", "$HOME", "*",
             "'", "line\nbreak", "back\\", "tab\t", "~", "#", "a&touch pwned", "\xff\xfe", "é", "x > pwned" }) {
        folder.makeFolder(name);
        touchTickle(folder.path(name));
        EXPECT_EQ("/" + name + "\n/" + name + "/.tickle\n", tree());
        folder.remove(name);
    }
    fs::current_path("/");
}

TEST_F(TickleTest, theWatcherTouchesTheFileOfAnyFolder)
{
    std::string path = folder.makeFolder("a");
    watcher->tickle(path);
    EXPECT_EQ(std::vector<std::string> { "touch " + path + "/.tickle" }, commandsRun());
    EXPECT_TRUE(folder.exists("a/.tickle"));
}

} // namespace
