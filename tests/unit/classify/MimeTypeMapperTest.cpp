#include "classify/MimeTypeMapper.h"

#include "support/SyslogCapture.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <list>
#include <string>
#include <thread>

using oru::util::MimeTypeMapper;

namespace {

std::string joined(const std::list<std::string>& words)
{
    std::string all;
    for (const std::string& word : words)
        all += (all.empty() ? "" : " ") + word;
    return all;
}

class MimeTypeMapperTest : public ::testing::Test {
protected:
    MimeTypeMapper read(const std::string& content) const
    {
        return MimeTypeMapper(folder.writeFile("mime_types.txt", content));
    }

    /// One line a type: the type, a colon, its extensions.
    static std::string dump(const MimeTypeMapper& table)
    {
        std::string all;
        for (const std::string& type : table.MimeTypes())
            all += type + ": " + joined(table.MimeTypeToExtensions(type)) + "\n";
        return all;
    }

    std::string dumpOf(const std::string& content) const { return dump(read(content)); }

    TemporaryFolder folder;
};

TEST_F(MimeTypeMapperTest, readsOneTypeALineWithItsExtensionsInFileOrder)
{
    const MimeTypeMapper table = read("video/mpeg mpeg mpg mpe\nimage/jpeg jpg jpeg\n");
    EXPECT_EQ("image/jpeg: jpg jpeg\nvideo/mpeg: mpeg mpg mpe\n", dump(table));
    EXPECT_EQ("video/mpeg", table.ExtensionToMimeType("mpeg"));
    EXPECT_EQ("video/mpeg", table.ExtensionToMimeType("mpe"));
    EXPECT_EQ("image/jpeg", table.ExtensionToMimeType("jpg"));
}

TEST_F(MimeTypeMapperTest, separatesWordsAtAnyWhiteSpace)
{
    EXPECT_EQ("a/b: c d e f g\n", dumpOf(" \t\v\f\ra/b\tc \v d\fe\r f  g \t\n"));
    EXPECT_EQ("a/b: c\nd/e: f\n", dumpOf("a/b c\r\nd/e f\r\n"));
}

TEST_F(MimeTypeMapperTest, takesOtherBytesAsPartOfAWord)
{
    // White space is that of the POSIX locale: neither a no-break space nor a next-line byte separates.
    const std::string word("x\xA0y\x85\x1f\x7f\0z", 8);
    EXPECT_EQ("a/b: " + word + " \xc3\xa9\n", dumpOf("a/b " + word + " \xc3\xa9\n"));
}

TEST_F(MimeTypeMapperTest, readsALastLineWithoutNewline) { EXPECT_EQ("a/b: c\nd/e: f\n", dumpOf("a/b c\nd/e f")); }

TEST_F(MimeTypeMapperTest, skipsBlankLinesAndComments)
{
    EXPECT_EQ("a/b: c\n", dumpOf("\n \t \n\r\n#video/x v\n  \t# video/y w\n#\n ##\na/b c\n\n"));
}

TEST_F(MimeTypeMapperTest, endsALineAtACommentBehindItsWords)
{
    EXPECT_EQ("a/b: c d\n", dumpOf("a/b c d # e f\n"));
    EXPECT_EQ("a/b: c\n", dumpOf("a/b c #d e\n"));
    EXPECT_EQ("a/b: c\n", dumpOf("a/b c #\n"));
}

TEST_F(MimeTypeMapperTest, takesAHashInsideAWordAsOrdinary)
{
    const MimeTypeMapper table = read("text/x#y c# a#b # d\n");
    EXPECT_EQ("text/x#y: c# a#b\n", dump(table));
    EXPECT_EQ("text/x#y", table.ExtensionToMimeType("c#"));
    EXPECT_EQ("", table.ExtensionToMimeType("c"));
}

TEST_F(MimeTypeMapperTest, skipsATypeWithoutExtensions)
{
    EXPECT_EQ("d/e: f\n", dumpOf("video/a\nvideo/b  \nvideo/c # x y\nvideo/d #\nd/e f\n"));
    const MimeTypeMapper table = read("video/c # x y\nd/e x\n");
    EXPECT_EQ("d/e", table.ExtensionToMimeType("x"));
    EXPECT_EQ("", table.ExtensionToMimeType("y"));
}

TEST_F(MimeTypeMapperTest, letsALineWithoutExtensionsNotTakeTheTypeFromALaterOne)
{
    EXPECT_EQ("video/a: x\n", dumpOf("video/a\nvideo/a x\n"));
}

TEST_F(MimeTypeMapperTest, keepsTheFirstListOfATypeYetLetsLaterLinesClaimNewExtensions)
{
    const MimeTypeMapper table = read("image/jpeg jpg\nimage/png png\nimage/jpeg jpeg jpe jpg\n");
    EXPECT_EQ("image/jpeg: jpg\nimage/png: png\n", dump(table));
    for (const char* extension : { "jpg", "jpeg", "jpe" })
        EXPECT_EQ("image/jpeg", table.ExtensionToMimeType(extension)) << extension;
}

TEST_F(MimeTypeMapperTest, leavesAnExtensionToTheFirstTypeThatListsIt)
{
    const MimeTypeMapper table = read("video/ogg ogg\naudio/ogg oga ogg\n");
    EXPECT_EQ("video/ogg", table.ExtensionToMimeType("ogg"));
    EXPECT_EQ("audio/ogg", table.ExtensionToMimeType("oga"));
    EXPECT_EQ("audio/ogg: oga ogg\nvideo/ogg: ogg\n", dump(table)); // the lists stay as they were written
}

TEST_F(MimeTypeMapperTest, keepsARepeatedExtensionOfOneLine) { EXPECT_EQ("a/b: c c d\n", dumpOf("a/b c c d\n")); }

TEST_F(MimeTypeMapperTest, comparesByteByByte)
{
    const MimeTypeMapper table = read("image/jpeg jpg JPEG\nIMAGE/JPEG jpe\n");
    EXPECT_EQ("IMAGE/JPEG: jpe\nimage/jpeg: jpg JPEG\n", dump(table));
    EXPECT_EQ("image/jpeg", table.ExtensionToMimeType("jpg"));
    EXPECT_EQ("image/jpeg", table.ExtensionToMimeType("JPEG"));
    for (const char* unknown : { "JPG", "Jpg", "jpeg", " jpg", "jpg ", ".jpg", "jp", "jpgg", "" })
        EXPECT_EQ("", table.ExtensionToMimeType(unknown)) << unknown;
}

TEST_F(MimeTypeMapperTest, neitherAddsNorRemovesADot)
{
    const MimeTypeMapper table = read("a/b .c\n");
    EXPECT_EQ("a/b", table.ExtensionToMimeType(".c"));
    EXPECT_EQ("", table.ExtensionToMimeType("c"));
}

TEST_F(MimeTypeMapperTest, hasNoTypeForAnUnknownExtensionNotEvenTheCatchAll)
{
    EXPECT_EQ("*/*", catchAllMimeType);
    const MimeTypeMapper table = read("a/b c\n");
    EXPECT_EQ("", table.ExtensionToMimeType("unknown"));
    EXPECT_TRUE(table.MimeTypeToExtensions(catchAllMimeType).empty());
}

TEST_F(MimeTypeMapperTest, sharesOneEmptyListAmongUnknownTypes)
{
    const MimeTypeMapper table = read("a/b c\n");
    const MimeTypeMapper other = read("d/e f\n");
    const std::list<std::string>& none = table.MimeTypeToExtensions("x/y");
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(&none, &table.MimeTypeToExtensions("x/y"));
    EXPECT_EQ(&none, &table.MimeTypeToExtensions(""));
    EXPECT_EQ(&none, &table.MimeTypeToExtensions("A/B"));
    EXPECT_EQ(&none, &other.MimeTypeToExtensions("a/b"));
    EXPECT_EQ(&table.MimeTypeToExtensions("a/b"), &table.MimeTypeToExtensions("a/b"));
}

TEST_F(MimeTypeMapperTest, areNoneWhenTheFileCannotBeRead)
{
    clearLog();
    ::testing::internal::CaptureStdout();
    for (const std::string& path : { folder.path("missing"), folder.path(), std::string() }) {
        const MimeTypeMapper table(path);
        EXPECT_EQ("", dump(table)) << path;
        EXPECT_EQ("", table.ExtensionToMimeType("jpg")) << path;
    }
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(MimeTypeMapperTest, areNoneInAnEmptyFile) { EXPECT_EQ("", dumpOf("")); }

TEST_F(MimeTypeMapperTest, areDumpedInSilence)
{
    clearLog();
    const MimeTypeMapper table = read("a/b c\n");
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    table.DumpMaps();
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
    EXPECT_TRUE(loggedLines().empty());
    EXPECT_EQ("a/b: c\n", dump(table));
}

TEST_F(MimeTypeMapperTest, readLongLinesWhole)
{
    const std::string word(100000, 'x');
    std::string line = "a/b";
    for (int i = 0; i < 3000; ++i)
        line += " e" + std::to_string(i);
    const MimeTypeMapper table = read(line + " " + word + "\n");
    EXPECT_EQ("a/b", table.ExtensionToMimeType("e0"));
    EXPECT_EQ("a/b", table.ExtensionToMimeType("e2999"));
    EXPECT_EQ("a/b", table.ExtensionToMimeType(word));
    EXPECT_EQ(3001U, table.MimeTypeToExtensions("a/b").size());
}

TEST_F(MimeTypeMapperTest, areOneTableAndOneEmptyListForAllThreads)
{
    const MimeTypeMapper table = read("a/b c\n");
    const MimeTypeMapper* daemonTable = nullptr;
    const std::list<std::string>* none = nullptr;
    std::thread([&] {
        daemonTable = &MimeTypeMapper::Instance();
        none = &table.MimeTypeToExtensions("x/y");
    }).join();
    EXPECT_EQ(&MimeTypeMapper::Instance(), daemonTable);
    EXPECT_EQ(&table.MimeTypeToExtensions("x/y"), none);
}

} // namespace
