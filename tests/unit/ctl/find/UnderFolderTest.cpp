#include "ctl/find/UnderFolder.h"

#include "ctl/Problem.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

ConfiguredVolume volume(const std::string& root) { return { root, root, {}, {} }; }

/// The volumes' roots with the folder below which each is searched.
std::string text(const std::string& folder, const std::vector<ConfiguredVolume>& volumes)
{
    std::string line;
    for (const SearchedVolume& searched : below(folder, volumes))
        line += searched.volume.root + ":" + searched.under.value_or("everywhere") + " ";
    return line;
}

TEST(UnderFolderTest, aFolderIsInTheVolumeWhoseRootItBeginsWith)
{
    const std::vector<ConfiguredVolume> volumes = { volume("/srv/a"), volume("/srv/ab") };
    EXPECT_EQ("/srv/a:/Music ", text("/srv/a/Music", volumes));
    EXPECT_EQ("/srv/a:/Music ", text("/srv//a/./x/../Music/", volumes));
    EXPECT_EQ("/srv/ab:/Music ", text("/srv/ab/Music", volumes));
    EXPECT_EQ("/srv/a: ", text("/srv/a/", volumes));
    EXPECT_EQ("/srv/a:everywhere /srv/ab:everywhere ", text("/srv", volumes));
    EXPECT_EQ("/srv/a:everywhere /srv/ab:everywhere ", text("/", volumes));
    EXPECT_EQ(":/srv ", text("/srv", { volume("") }));
}

TEST(UnderFolderTest, aFolderInNoVolumeIsRefused)
{
    EXPECT_THROW(below("/srv/abc", { volume("/srv/a"), volume("/srv/ab") }), Problem);
    EXPECT_THROW(below("/Music", { volume("/srv/a") }), Problem);
}

TEST(UnderFolderTest, relativeFoldersBeginHereAndLinksLeadToTheVolume)
{
    const TemporaryFolder folder;
    const std::string root = folder.makeFolder("root");
    folder.makeFolder("root/Music");
    std::filesystem::create_directory_symlink(root, folder.path("link"));
    EXPECT_EQ(root + ":/Music ", text(folder.path("link/Music"), { volume(root) }));
    EXPECT_EQ(folder.path("link") + ":/Music/gone ", text(root + "/Music/gone", { volume(folder.path("link")) }));
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(root + "/Music");
    const std::string here = text(".", { volume(root) });
    const std::string beside = text("../Photos", { volume(root) });
    std::filesystem::current_path(before);
    EXPECT_EQ(root + ":/Music ", here);
    EXPECT_EQ(root + ":/Photos ", beside);
}

} // namespace
