#include "ctl/status/WalkPosition.h"

#include "../SampleCatalogue.h"
#include "ctl/Catalogue.h"
#include "ctl/status/ProcessFacts.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

namespace {

class WalkPositionTest : public testing::Test {
protected:
    void add(const std::string& path, bool isDeleted = false)
    {
        sample.run(
            "insert into Folders(parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)"
            " values(1, '"
            + path + "', 'n', 1, 1, " + (isDeleted ? "1" : "0") + ", 1)");
    }

    /// "DONE/TOTAL" of the walk that reads the folder.
    std::string at(const std::string& folder) const
    {
        const Catalogue catalogue(sample.path());
        const auto position = walkPosition(catalogue, volume, folder);
        return position ? std::to_string(position->done) + "/" + std::to_string(position->total) : "nowhere";
    }

    const SampleCatalogue sample;
    ConfiguredVolume volume { "V", sample.folder.path(), {}, {} };
};

/// The entries of a folder in the order in which the system lists them.
std::vector<std::string> listed(const std::string& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    return names;
}

TEST_F(WalkPositionTest, aWalkGoesLevelByLevelInTheOrderOfTheListings)
{
    const std::vector<std::string> names = { "a", "a b", "a-", "b", "\xc3\xa4" };
    for (const std::string& outer : names) {
        for (const std::string& inner : names)
            sample.folder.makeFolder("m/" + outer + "/" + inner);
    }
    std::vector<std::string> order = { "", "/m" };
    const std::string media = sample.folder.path("m");
    for (const std::string& outer : listed(media))
        order.push_back("/m/" + outer);
    for (const std::string& outer : listed(media)) {
        for (const std::string& inner : listed(media + "/" + outer))
            order.push_back("/m/" + outer + "/" + inner);
    }
    for (auto path = order.rbegin(); path != order.rend(); ++path)
        add(*path);
    add("/m/a/gone", true);
    for (std::size_t number = 0; number < order.size(); ++number)
        EXPECT_EQ(std::to_string(number) + "/32", at(order[number])) << order[number];
}

TEST_F(WalkPositionTest, crawlPathsAreWalkedOneAfterTheOther)
{
    volume.crawlPaths = { "/m", "/a" };
    for (const std::string path : { "/a", "/a/1", "/m", "/m/1", "/m2", "/m2/x" }) {
        sample.folder.makeFolder(path.substr(1));
        add(path);
    }
    EXPECT_EQ("0/4", at("/m"));
    EXPECT_EQ("1/4", at("/m/1"));
    EXPECT_EQ("2/4", at("/a"));
    EXPECT_EQ("3/4", at("/a/1"));
    EXPECT_EQ("nowhere", at("/m2/x"));
}

TEST_F(WalkPositionTest, theFolderInHandIsAmongTheDescriptors)
{
    sample.folder.makeFolder("music/new");
    const ConfiguredVolume other { "O", sample.folder.makeFolder("music/new/other"), {}, {} };
    const ProcessFacts self(getpid(), "/proc");
    using Folders = std::vector<std::optional<std::string>>;
    EXPECT_EQ((Folders { std::nullopt, std::nullopt }), foldersInHand(self, { volume, other }, 1));
    const int state = open(sample.folder.path(".quarrow").c_str(), O_RDONLY);
    const int file = open(sample.folder.writeFile("music/file").c_str(), O_RDONLY);
    EXPECT_EQ(Folders { std::nullopt }, foldersInHand(self, { volume }, 1));
    const int folder = open(sample.folder.path("music/new").c_str(), O_RDONLY);
    EXPECT_EQ((Folders { "/music/new", std::nullopt }), foldersInHand(self, { volume, other }, 1));
    for (const int descriptor : { state, file, folder })
        close(descriptor);
}

} // namespace
