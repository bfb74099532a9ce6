#include "classify/CategoryMapper.h"

#include "classify/PrivateMimeTable.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using oru::db::CategoryMapper;
using oru::util::MimeTypeMapper;

namespace {

/// The table of the process is read once, so each of these tests is right only in a process of its own.
class CategoryMapperTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        static int tests = 0;
        ASSERT_EQ(1, ++tests) << "one process for each of these tests: run them through ctest";
    }
    /// The category of each of the words in turn, as the daemon's own mapper has it.
    static std::string of(const std::vector<std::string>& extensions)
    {
        std::string all;
        for (const std::string& extension : extensions)
            all += std::to_string(CategoryMapper::Instance().ExtensionToCategory(extension));
        return all;
    }
};

TEST_F(CategoryMapperTest, tellVideoAudioImageAndOtherApart)
{
    const PrivateMimeTable table(
        "video/mp4 mp4\naudio/mpeg mp3\nimage/jpeg jpg\napplication/ogg ogx\ntext/plain txt\n");
    EXPECT_EQ("12344", of({ "mp4", "mp3", "jpg", "ogx", "txt" }));
    EXPECT_EQ("1 2 3 4",
        std::to_string(CategoryMapper::categoryVideo) + " " + std::to_string(CategoryMapper::categoryAudio) + " "
            + std::to_string(CategoryMapper::categoryImage) + " " + std::to_string(CategoryMapper::categoryOther));
}

TEST_F(CategoryMapperTest, lookAtTheFirstFiveCharactersOnly)
{
    const PrivateMimeTable table("videos/x a\nvideo b\naudio c\naudiobook/y d\nimagery/z e\nimage f\n");
    EXPECT_EQ("112233", of({ "a", "b", "c", "d", "e", "f" }));
}

TEST_F(CategoryMapperTest, areOtherForEveryOtherBeginning)
{
    const PrivateMimeTable table("vide/x a\nVideo/mp4 b\nAUDIO/mpeg c\nx-image/y d\napplication/video e\n"
                                 "aud f\n.image/png g\nvidéo/z h\n");
    EXPECT_EQ("44444444", of({ "a", "b", "c", "d", "e", "f", "g", "h" }));
}

TEST_F(CategoryMapperTest, areOtherForAnUnknownExtension)
{
    const PrivateMimeTable table("video/mp4 mp4\n");
    EXPECT_EQ("1444444", of({ "mp4", "", "avi", ".mp4", "mp4 ", "video", "video/mp4" }));
}

TEST_F(CategoryMapperTest, foldNoCase)
{
    const PrivateMimeTable table("video/mp4 mp4\nimage/jpeg JPG\n");
    EXPECT_EQ("1443", of({ "mp4", "MP4", "jpg", "JPG" }));
}

TEST_F(CategoryMapperTest, coverExtensionsThatOnlyALaterLineOfTheTypeNames)
{
    const PrivateMimeTable table("image/jpeg jpg\nvideo/mp4 mp4\nimage/jpeg jpeg\n");
    EXPECT_EQ("33", of({ "jpg", "jpeg" }));
    EXPECT_EQ(1U, MimeTypeMapper::Instance().MimeTypeToExtensions("image/jpeg").size());
}

TEST_F(CategoryMapperTest, goByTheFirstTypeOfAnExtension)
{
    const PrivateMimeTable table("application/ogg ogg\naudio/ogg ogg oga\n");
    EXPECT_EQ("42", of({ "ogg", "oga" }));
}

TEST_F(CategoryMapperTest, areAllOtherWithAnEmptyTable)
{
    const PrivateMimeTable table("");
    EXPECT_EQ("4444", of({ "mp4", "mp3", "jpg", "" }));
}

TEST_F(CategoryMapperTest, areAllOtherWithoutATable)
{
    const PrivateMimeTable table;
    EXPECT_EQ("4444", of({ "mp4", "mp3", "jpg", "" }));
}

TEST_F(CategoryMapperTest, areOtherForFoldersWhateverIsKnown)
{
    const PrivateMimeTable table("video/mp4 mp4\n");
    const CategoryMapper mapper;
    EXPECT_EQ(4, mapper.FolderToCategory());
    EXPECT_EQ(4, mapper.FolderToCategory("mp4"));
    EXPECT_EQ(4, mapper.FolderToCategory(std::string("/Films.mp4"), 1, 2.5, nullptr));
}

TEST_F(CategoryMapperTest, areTheSameInAMapperOfOnesOwn)
{
    const PrivateMimeTable table("video/mp4 mp4\n");
    const CategoryMapper own;
    EXPECT_EQ(1, own.ExtensionToCategory("mp4"));
    EXPECT_EQ(4, own.ExtensionToCategory("mp3"));
    EXPECT_NE(&own, &CategoryMapper::Instance());
    EXPECT_EQ(&CategoryMapper::Instance(), &CategoryMapper::Instance());
    EXPECT_EQ(&MimeTypeMapper::Instance(), &MimeTypeMapper::Instance());
}

TEST_F(CategoryMapperTest, comeFromTheTableAsItWasAtFirstUse)
{
    const PrivateMimeTable table("video/mp4 mp4\n");
    EXPECT_EQ("14", of({ "mp4", "mp3" }));
    table.replace("audio/mpeg mp3 mp4\n");
    EXPECT_EQ("14", of({ "mp4", "mp3" }));
    EXPECT_EQ(4, CategoryMapper().ExtensionToCategory("mp3"));
}

TEST_F(CategoryMapperTest, areRightForThreadsThatAllAskFirst)
{
    const PrivateMimeTable table("video/mp4 mp4\nimage/jpeg jpg\n");
    std::mutex mutex;
    std::condition_variable opened;
    bool open = false;
    std::vector<const CategoryMapper*> mappers(8);
    std::vector<std::string> answers(mappers.size());
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < mappers.size(); ++i)
        threads.emplace_back([&, i] {
            {
                std::unique_lock<std::mutex> held(mutex);
                opened.wait(held, [&] { return open; });
            }
            mappers[i] = &CategoryMapper::Instance();
            answers[i] = of({ "mp4", "jpg", "txt" });
        });
    {
        const std::lock_guard<std::mutex> held(mutex);
        open = true;
    }
    opened.notify_all();
    for (std::thread& thread : threads)
        thread.join();
    for (std::size_t i = 0; i < mappers.size(); ++i) {
        EXPECT_EQ(&CategoryMapper::Instance(), mappers[i]);
        EXPECT_EQ("134", answers[i]);
    }
}

TEST_F(CategoryMapperTest, areThoseOfTheShippedTableOnAnAppliance)
{
    // No table of the test's own: the one that lies where the daemon looks.
    EXPECT_EQ("1123344", of({ "mp4", "MKV", "mp3", "jpg", "PNG", "txt", "iso" }));
}

} // namespace
