#include "VolumeTest.h"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <fstream>

namespace {

/// The catalogue on a file system of its own that can be filled to the brim.
class TreeWalkFullVolumeTest : public VolumeTest {
protected:
    void SetUp() override
    {
        destroy();
        volume.remove(".quarrow");
        volume.makeFolder(".quarrow");
        // In a mount namespace of this thread alone, whatever the process was started in.
        ASSERT_EQ(0, unshare(CLONE_NEWNS)) << errno;
        ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr)) << errno;
        ASSERT_EQ(0, mount("tmpfs", volume.path(".quarrow").c_str(), "tmpfs", 0, "size=3m")) << errno;
        mounted = true;
        manager = std::make_unique<VolumeManager>();
        initializeQuietly();
        volume.makeFolder("Music/large");
        volume.makeFolder("Music/small");
        walk("/Music");
        ASSERT_EQ("[/Music] root\n[/Music/large] in [/Music]\n[/Music/small] in [/Music]\n", folders());
    }

    void TearDown() override
    {
        destroy();
        if (mounted) {
            EXPECT_EQ(0, umount(volume.path(".quarrow").c_str()));
        }
    }

    void makeFiles(int count, int nameLength) const
    {
        for (int number = 0; number < count; ++number) {
            std::string file = std::to_string(number);
            file.insert(0, static_cast<std::string::size_type>(nameLength) - file.length(), '0');
            volume.writeFile("Music/large/" + file);
        }
        volume.writeFile("Music/small/a.mp3");
    }

    void fill() const
    {
        std::ofstream ballast(volume.path(".quarrow/ballast"), std::ios::binary);
        const std::string page(4096, 'x');
        while (ballast.write(page.data(), 4096).flush()) { }
    }

    void makeRoom() const
    {
        volume.remove(".quarrow/ballast");
        ASSERT_EQ(0, mount(nullptr, volume.path(".quarrow").c_str(), nullptr, MS_REMOUNT, "size=64m"));
    }

    bool mounted = false;
};

TEST_F(TreeWalkFullVolumeTest, folderThatDoesNotFitIsAbandonedAtItsCommit)
{
    makeFiles(1000, 20);
    fill();
    walk("/Music");
    EXPECT_EQ(std::vector<LogLine> { gotAnException() }, loggedErrors());
    EXPECT_EQ("[/Music/small/a.mp3] 2 in [/Music/small]\n", files());
    makeRoom();
    walk("/Music");
    EXPECT_EQ(std::vector<LogLine> {}, loggedErrors());
    EXPECT_EQ(1001, liveFiles());
    EXPECT_EQ("ok\n", query("pragma integrity_check"));
}

TEST_F(TreeWalkFullVolumeTest, nothingMoreIsWrittenForAFolderThatFailedHalfWay)
{
    makeFiles(2500, 250); // more than what a transaction keeps in memory
    fill();
    walk("/Music");
    EXPECT_EQ(1, timesLoggedFrom("insertFile() failed, handleStatus: "));
    EXPECT_EQ(1, timesLoggedFrom("Error in insert/update of the file "));
    EXPECT_EQ(gotAnException(), loggedErrors().back());
    EXPECT_EQ(3U, loggedErrors().size());
    EXPECT_EQ("[/Music/small/a.mp3] 2 in [/Music/small]\n", files());
    makeRoom();
    walk("/Music");
    EXPECT_EQ(std::vector<LogLine> {}, loggedErrors());
    EXPECT_EQ(2501, liveFiles());
    EXPECT_EQ("ok\n", query("pragma integrity_check"));
}

} // namespace
