#include "ctl/report/FolderTree.h"
#include "ctl/report/FolderSelection.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace {

constexpr std::size_t audio = 1;
constexpr std::size_t image = 2;

/// One line per folder: "INDEX<PARENT NAME category files bytes +folders files bytes of those that are not shown".
std::string shown(const FolderTree& tree, std::size_t limit)
{
    std::string text;
    std::size_t index = 0;
    for (const ShownFolder& folder : selectLargest(tree, limit)) {
        text += fmt::format(
            "{}<{} '{}' c{} {} {}", index++, folder.parent, folder.name, folder.category, folder.files, folder.bytes);
        if (folder.otherFolders > 0)
            text += fmt::format(" +{} {} {}", folder.otherFolders, folder.otherFiles, folder.otherBytes);
        text += "\n";
    }
    return text;
}

class FolderTreeTest : public testing::Test {
protected:
    FolderTree tree;
};

TEST_F(FolderTreeTest, anEmptyOneHasTheRoot) { EXPECT_EQ("0<0 '' c0 0 0\n", shown(tree, 10)); }

TEST_F(FolderTreeTest, filesAreCountedWhereTheirPathsSay)
{
    tree.addFile("/Music/Rock/a.mp3", audio, 10);
    tree.addFile("/Music/Rock/b.mp3", audio, 5);
    tree.addFile("/Music/c.jpg", image, 3);
    tree.addFile("/root.jpg", image, 1);
    EXPECT_EQ("0<0 '' c2 1 1\n1<0 'Music' c2 1 3\n2<1 'Rock' c2 2 15\n", shown(tree, 10));
}

TEST_F(FolderTreeTest, aFolderIsMadeOnceWithAllAboveIt)
{
    const std::size_t deep = tree.folder("/a/b/a");
    EXPECT_EQ(3U, deep);
    EXPECT_EQ(1U, tree.folder("/a"));
    EXPECT_EQ(deep, tree.folder("/a/b/a"));
    EXPECT_EQ(0U, tree.folder(""));
    EXPECT_EQ(4U, tree.folder("/b")); // the same name elsewhere
    EXPECT_EQ(5U, tree.all().size());
}

TEST_F(FolderTreeTest, pathsOfAnotherProgramDoNoHarm)
{
    EXPECT_EQ(tree.folder("/a/b"), tree.folder("a//b/"));
    tree.addFile("file", audio, 1);
    tree.addFile("", audio, 1);
    EXPECT_EQ(2, tree.all()[0].direct.allFiles());
}

TEST_F(FolderTreeTest, theLargestAreShownAndTheOthersCountAboveThem)
{
    tree.addFile("/big/a", audio, 100);
    tree.addFile("/big/in/a", audio, 50);
    tree.addFile("/small/a", image, 2);
    tree.addFile("/small/x/a", image, 3);
    tree.folder("/small/x/y");
    tree.addFile("/big/tiny/a", image, 1);
    EXPECT_EQ("0<0 '' c2 0 0 +3 2 5\n1<0 'big' c2 1 100 +1 1 1\n2<1 'in' c2 1 50\n", shown(tree, 3));
    EXPECT_EQ("0<0 '' c2 0 0 +6 5 156\n", shown(tree, 1));
    EXPECT_EQ("0<0 '' c2 0 0 +6 5 156\n", shown(tree, 0));
}

TEST_F(FolderTreeTest, ofEqualFoldersTheUpperOnesAreShown)
{
    tree.addFile("/a/b/c/file", audio, 7);
    EXPECT_EQ("0<0 '' c2 0 0\n1<0 'a' c2 0 0 +2 1 7\n", shown(tree, 2));
}

TEST_F(FolderTreeTest, theCategoryWithTheMostBytesStandsForAFolder)
{
    tree.addFile("/a/1", image, 3);
    tree.addFile("/a/2", image, 3);
    tree.addFile("/a/b/3", audio, 5);
    tree.addFile("/a/none/4", audio, 0);
    EXPECT_EQ("0<0 '' c3 0 0\n1<0 'a' c3 2 6\n2<1 'b' c2 1 5\n3<1 'none' c0 1 0\n", shown(tree, 10));
}

TEST_F(FolderTreeTest, sumsStopAtTheGreatestNumber)
{
    tree.addFile("/a/1", audio, __LONG_LONG_MAX__);
    tree.addFile("/a/2", image, __LONG_LONG_MAX__);
    tree.addFile("/b/1", image, 1);
    EXPECT_EQ(fmt::format("0<0 '' c2 0 0 +1 1 1\n1<0 'a' c2 2 {}\n", __LONG_LONG_MAX__), shown(tree, 2));
}

} // namespace
