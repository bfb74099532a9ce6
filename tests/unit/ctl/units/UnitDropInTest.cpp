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

    TemporaryFolder folder;
    std::string configuration = "/etc/quarrow/quarrow-host.xml";
    std::vector<ConfiguredVolume> volumes;
};

TEST_F(UnitDropInTest, everyVolumeHasToBeMountedAndMayBeWritten)
{
    add("/srv/media");
    add("/srv/backup");
    EXPECT_EQ("\"/srv/media\"\n\"/srv/backup\"\n", settings("RequiresMountsFor"));
    EXPECT_EQ("-\"/srv/media\"\n-\"/srv/backup\"\n", settings("ReadWritePaths"));
    EXPECT_EQ("strict\n", settings("ProtectSystem"));
    EXPECT_EQ("/etc/quarrow/quarrow-host.xml\n", settings("SourcePath"));
}

TEST_F(UnitDropInTest, whatSystemdWouldTakeForItselfIsEscaped)
{
    add("/srv/\"two\" 'one' \\ 100% $HOME; # \xc3\xa4\t.");
    EXPECT_EQ("\"/srv/\\\"two\\\" 'one' \\\\ 100%% $HOME; # \xc3\xa4\t.\"\n", settings("RequiresMountsFor"));
    configuration = "/etc/100% \"sure\".xml";
    EXPECT_EQ("/etc/100%% \"sure\".xml\n", settings("SourcePath"));
}

TEST_F(UnitDropInTest, aVolumeThatNoUnitCanNameIsSaidAndShutOutOfNothing)
{
    for (const std::string root : { "/srv/\xff", "/srv/a\nb", "srv/relative" }) {
        volumes.clear();
        add("/srv/good");
        add(root);
        EXPECT_EQ(1U, UnitDropIn(configuration, volumes).problems().size()) << root;
        EXPECT_EQ("\"/srv/good\"\n", settings("RequiresMountsFor"));
        EXPECT_EQ("", settings("ProtectSystem"));
        EXPECT_EQ("", settings("ReadWritePaths"));
    }
    volumes.clear();
    add("/srv/good");
    EXPECT_TRUE(UnitDropIn(configuration, volumes).problems().empty());
}

TEST_F(UnitDropInTest, aConfigurationThatNoUnitCanNameIsLeftOut)
{
    add("/srv/media");
    configuration = "/etc/\xff.xml";
    EXPECT_EQ("", settings("SourcePath"));
    EXPECT_EQ("\"/srv/media\"\n", settings("RequiresMountsFor"));
}

TEST_F(UnitDropInTest, linksAreFollowedAndNamedToo)
{
    const std::string disk = folder.makeFolder("disk/media");
    const std::string catalogues = folder.makeFolder("ssd/catalogues");
    const std::string link = folder.path("link");
    ASSERT_EQ(0, symlink(disk.c_str(), link.c_str()));
    ASSERT_EQ(0, symlink(catalogues.c_str(), folder.path("disk/media/.quarrow").c_str()));
    add(link);
    EXPECT_EQ("\"" + disk + "\"\n\"" + link + "\"\n\"" + catalogues + "\"\n", settings("RequiresMountsFor"));
}

TEST_F(UnitDropInTest, aPathIsNamedWithoutDotsAndDoubledSlashes)
{
    add(folder.path("a/../b//c"));
    EXPECT_EQ("\"" + folder.path("b/c") + "\"\n", settings("RequiresMountsFor"));
}

TEST_F(UnitDropInTest, theRootOfAllIsNamed)
{
    add("");
    EXPECT_EQ("\"/\"\n", settings("RequiresMountsFor"));
}

} // namespace
