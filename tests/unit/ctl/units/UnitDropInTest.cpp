#include "ctl/units/UnitDropIn.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

class UnitDropInTest : public testing::Test {
protected:
    void add(const std::string& root) { volumes.push_back({ "V", root, {}, {} }); }

    /// The lines of the drop-in that begin with the key, less the key, each with a line end.
    std::string settings(const std::string& key) const
    {
        const std::string text = UnitDropIn(configuration, volumes).text();
        std::string found;
        for (std::size_t at = text.find("\n" + key + "="); at != std::string::npos;
             at = text.find("\n" + key + "=", at)) {
            at += key.length() + 2;
            found += text.substr(at, text.find('\n', at) + 1 - at);
            --at;
        }
        return found;
    }

    /// What has to be mounted beside the configuration.
    std::string mounts() const
    {
        const std::string all = settings("RequiresMountsFor");
        return all.substr(all.find('\n') + 1);
    }

    TemporaryFolder folder;
    std::string configuration = "/etc/quarrow/quarrow-host.xml";
    std::vector<ConfiguredVolume> volumes;
};

TEST_F(UnitDropInTest, everyVolumeHasToBeMountedAndMayBeWritten)
{
    add("/nowhere/media");
    add("/nowhere/backup");
    EXPECT_EQ("\"/nowhere/media\"\n\"/nowhere/backup\"\n", mounts());
    EXPECT_EQ("-\"/nowhere/media\"\n-\"/nowhere/backup\"\n", settings("ReadWritePaths"));
    EXPECT_EQ("strict\n", settings("ProtectSystem"));
    EXPECT_EQ("QUARROW_VOLUMES_NAMED=yes\n", settings("Environment"));
    EXPECT_EQ("/etc/quarrow/quarrow-host.xml\n", settings("SourcePath"));
    EXPECT_EQ(0U, settings("RequiresMountsFor").find("\"/etc/quarrow/quarrow-host.xml\"\n"));
}

TEST_F(UnitDropInTest, whatSystemdWouldTakeForItselfIsEscaped)
{
    add("/nowhere/\"two\" 'one' \\ 100% $HOME; # \xc3\xa4\t.");
    const std::string word = "\"/nowhere/\\\"two\\\" 'one' \\\\ 100%% $HOME; # \xc3\xa4\t.\"\n";
    EXPECT_EQ(word, mounts());
    EXPECT_EQ("-" + word, settings("ReadWritePaths"));
    configuration = "/etc/100% \"sure\".xml";
    EXPECT_EQ("/etc/100%% \"sure\".xml\n", settings("SourcePath"));
}

TEST_F(UnitDropInTest, aVolumeThatNoUnitCanNameIsSaidAndShutOutOfNothing)
{
    for (const std::string root : { "/nowhere/\xff", "/nowhere/a\nb", "/nowhere/a\rb", "nowhere/relative" }) {
        volumes.clear();
        add("/nowhere/good");
        add(root);
        EXPECT_EQ(1U, UnitDropIn(configuration, volumes).problems().size()) << root;
        EXPECT_EQ("\"/nowhere/good\"\n", mounts());
        EXPECT_EQ("", settings("ProtectSystem"));
        EXPECT_EQ("", settings("ReadWritePaths"));
        EXPECT_EQ("QUARROW_VOLUMES_NAMED=yes\n", settings("Environment"));
    }
    volumes.clear();
    add("/nowhere/good");
    EXPECT_TRUE(UnitDropIn(configuration, volumes).problems().empty());
}

TEST_F(UnitDropInTest, aConfigurationThatNoUnitCanNameIsLeftOut)
{
    add("/nowhere/media");
    configuration = "/etc/\xff.xml";
    EXPECT_EQ("", settings("SourcePath"));
    EXPECT_EQ("\"/nowhere/media\"\n", settings("RequiresMountsFor"));
}

TEST_F(UnitDropInTest, linksAreFollowedToWhatIsNotMountedYet)
{
    const std::string link = folder.path("link");
    ASSERT_EQ(0, symlink("disk/media", link.c_str()));
    add(link);
    const std::string disk = folder.path("disk/media");
    EXPECT_EQ("\"" + disk + "\"\n\"" + link + "\"\n", mounts());
    EXPECT_EQ("-\"" + disk + "\"\n-\"" + link + "\"\n", settings("ReadWritePaths"));
}

TEST_F(UnitDropInTest, aCatalogueElsewhereIsNamedToo)
{
    const std::string root = folder.makeFolder("media");
    const std::string state = folder.path("media/.quarrow");
    ASSERT_EQ(0, symlink("/nowhere/ssd", state.c_str()));
    add(root);
    EXPECT_EQ("\"" + root + "\"\n\"/nowhere/ssd\"\n", mounts());
    folder.remove("media/.quarrow");
    folder.makeFolder("media/.quarrow");
    EXPECT_EQ("\"" + root + "\"\n", mounts());
    ASSERT_EQ(0, symlink("/nowhere/ssd/one.db", (state + "/quarrow.db").c_str()));
    EXPECT_EQ("\"" + root + "\"\n\"/nowhere/ssd\"\n", mounts());
}

TEST_F(UnitDropInTest, aPathIsNamedWithoutDotsAndDoubledSlashes)
{
    add(folder.path("a/../b//c"));
    EXPECT_EQ("\"" + folder.path("b/c") + "\"\n", mounts());
}

TEST_F(UnitDropInTest, theRootOfAllIsNamed)
{
    add("");
    EXPECT_EQ("\"/\"\n", mounts());
    EXPECT_EQ("", settings("ProtectSystem"));
    EXPECT_EQ("", settings("ReadWritePaths"));
}

} // namespace
