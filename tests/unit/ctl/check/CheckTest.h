#pragma once

#include "ctl/check/ConfigurationCheck.h"
#include "ctl/check/Machine.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

/// A host configuration in a folder of its own, and a machine that lacks nothing.
class CheckTest : public ::testing::Test {
protected:
    CheckTest()
    {
        setenv("QUARROW_CONFIG_FILE", folder.path("host.xml").c_str(), 1);
        machine.mimeTable = folder.writeFile("machine/mime_types.txt", "video/mp4 mp4 MP4\n");
        machine.standbyMarker = folder.path("machine/standby");
        machine.watchLimit = folder.writeFile("machine/watches", "1000\n");
        machine.watchLimitHere = folder.path("machine/no-such-limit");
        machine.instanceLimit = folder.writeFile("machine/instances", "128\n");
        machine.tryInotify = [] { return 0; };
        folder.writeFile("v/Music/a.mp3");
    }
    ~CheckTest() override { unsetenv("QUARROW_CONFIG_FILE"); }

    /// What is found in this configuration, in which DIR stands for the folder. One line each: "LINE: warning: REASON.
    /// REMEDY.", with the subject in front where that is not the configuration, and DIR for the folder again.
    std::string check(const std::string& text) const
    {
        folder.writeFile("host.xml", replaced(text, "DIR", folder.path()));
        return check();
    }

    std::string check() const
    {
        const ConfigurationCheck done(machine);
        EXPECT_TRUE(done.isConsistent());
        EXPECT_EQ(done.isAccepted(), done.isChecked() && !done.findings().hasRefusal());
        std::string all;
        for (const Finding& finding : done.findings().list())
            all += (finding.subject == folder.path("host.xml") ? "" : finding.subject + ": ")
                + (finding.line == 0 ? "" : std::to_string(finding.line) + ": ")
                + (finding.kind == Finding::Kind::refusal          ? "refused: "
                        : finding.kind == Finding::Kind::unchecked ? "not checked: "
                                                                   : "warning: ")
                + finding.reason + ". " + finding.remedy + ".\n";
        return replaced(all, folder.path(), "DIR");
    }

    /// What is found in a good configuration whose only volume says this, on line 5 from "<Name>" on.
    std::string checkVolume(const std::string& volume) const
    {
        return check(withVolumes("<Volume>\n" + volume + "</Volume>"));
    }
    /// The same with other volumes, from line 4 on.
    static std::string withVolumes(const std::string& volumes)
    {
        return "<Q>\n<Version>1.0</Version>\n<last_updated_time>1</last_updated_time>\n<Volumes>" + volumes
            + "</Volumes></Q>";
    }
    /// The same with a good volume, and more settings on line 2.
    static std::string withSettings(const std::string& settings)
    {
        return "<Q>\n" + settings + "\n<Version>1.0</Version><last_updated_time>1</last_updated_time><Volumes>"
            + goodVolume + "</Volumes></Q>";
    }

    static std::string replaced(std::string text, const std::string& what, const std::string& with)
    {
        for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.length())
            text.replace(at, what.length(), with);
        return text;
    }

    static constexpr const char* goodVolume = "<Volume><Name>media</Name><Root>DIR/v</Root>"
                                              "<ExcludePaths><Path>/.quarrow</Path></ExcludePaths></Volume>";
    TemporaryFolder folder;
    Machine machine;
};

// Pieces of a configuration.

inline constexpr const char* ownFolderExcluded = "<ExcludePaths><Path>/.quarrow</Path></ExcludePaths>";

inline std::string volume(const std::string& name, const std::string& root, const std::string& more = ownFolderExcluded)
{
    return "\n<Volume><Name>" + name + "</Name><Root>" + root + "</Root>" + more + "</Volume>";
}

inline std::string crawl(const std::string& path) { return "<CrawlPaths><Path>" + path + "</Path></CrawlPaths>"; }

inline std::string exclude(const std::string& path)
{
    return "<ExcludePaths><Path>/.quarrow</Path><Path>" + path + "</Path></ExcludePaths>";
}
