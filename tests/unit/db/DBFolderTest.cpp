#include "db/DBFolder.h"

#include <gtest/gtest.h>

#include <list>
#include <stack>
#include <string>
#include <type_traits>
#include <utility>

static_assert(std::has_virtual_destructor_v<DBFolder>);
static_assert(std::is_same_v<std::string, decltype(std::declval<const DBFolder>().getPath())>);
static_assert(std::is_same_v<std::string, decltype(std::declval<const DBFolder>().getName())>);

namespace {

/// Every field: folder, parent, path, name, deleted, updated, created, modified.
std::string dump(const DBFolder& folder)
{
    return std::to_string(folder.getFolder_id()) + " " + std::to_string(folder.getParent_id()) + " '" + folder.getPath()
        + "' '" + folder.getName() + (folder.getIs_deleted() ? "' deleted " : "' live ")
        + std::to_string(folder.getLast_updated_time()) + " " + std::to_string(folder.getCreated_time()) + " "
        + std::to_string(folder.getModified_time());
}

DBFolder someFolder()
{
    DBFolder folder;
    folder.setFolder_id(1);
    folder.setParent_id(2);
    folder.setPath("/v/music");
    folder.setName("music");
    folder.setIs_deleted(true);
    folder.setLast_updated_time(3);
    folder.setCreated_time(4);
    folder.setModified_time(5);
    return folder;
}

DBFolder folderAt(const std::string& path, const std::string& name = "")
{
    DBFolder folder;
    folder.setPath(path);
    folder.setName(name);
    return folder;
}

TEST(DBFolderTest, holdsWhatWasSet) { EXPECT_EQ("1 2 '/v/music' 'music' deleted 3 4 5", dump(someFolder())); }

TEST(DBFolderTest, hasDefinedValuesFromTheStart) { EXPECT_EQ("0 0 '' '' live 0 0 0", dump(DBFolder())); }

TEST(DBFolderTest, becomesZeroInAllFieldsWhenResetIdsAndDeletedMarkToo)
{
    DBFolder folder = someFolder();
    folder.resetFolder();
    EXPECT_EQ("0 0 '' '' live 0 0 0", dump(folder));
}

TEST(DBFolderTest, isCopiedInAllItsFields)
{
    DBFolder original = someFolder();
    const DBFolder copy(original);
    DBFolder assigned;
    assigned = original;
    original.setPath("/y");
    original.setName("y");
    original.setParent_id(9);
    EXPECT_EQ(dump(someFolder()), dump(copy));
    EXPECT_EQ(dump(someFolder()), dump(assigned));
}

TEST(DBFolderTest, isShownAsItsPathAlone) { EXPECT_EQ("/v/music", someFolder().toString()); }

TEST(DBFolderTest, equalsOneOfTheSamePathWhateverItsName)
{
    EXPECT_TRUE(folderAt("/a", "one") == folderAt("/a", "two"));
    EXPECT_TRUE(someFolder() == folderAt("/v/music"));
    EXPECT_FALSE(folderAt("/a", "one") == folderAt("/b", "one"));
    EXPECT_FALSE(folderAt("/a") == folderAt("/A"));
    EXPECT_FALSE(folderAt("/a") == folderAt("/a/"));
}

TEST(DBFolderTest, isLessThanOneOfTheSamePathAndTheOtherWayRoundToo)
{
    const DBFolder one = folderAt("/a", "one");
    const DBFolder two = folderAt("/a", "two");
    EXPECT_TRUE(one < two);
    EXPECT_TRUE(two < one);
    EXPECT_TRUE(one < one);
}

TEST(DBFolderTest, isOrderedByThePathInBytes)
{
    EXPECT_TRUE(folderAt("/a", "z") < folderAt("/b", "a"));
    EXPECT_FALSE(folderAt("/b", "a") < folderAt("/a", "z"));
    EXPECT_TRUE(folderAt("/B") < folderAt("/a"));
    EXPECT_TRUE(folderAt("/a") < folderAt("/a/b"));
    EXPECT_TRUE(folderAt("/a b") < folderAt("/a/b"));
    EXPECT_TRUE(folderAt("/z") < folderAt("/\xc3\xa9"));
    EXPECT_FALSE(folderAt("/\xff") < folderAt("/z"));
    EXPECT_TRUE(folderAt("/9") < folderAt("/a"));
    EXPECT_TRUE(folderAt("/10") < folderAt("/9"));
}

TEST(DBFolderTest, isSortedInAListInSpiteOfItsOrder)
{
    std::list<DBFolder> folders;
    for (const char* path : { "/b", "/a", "/c", "/a", "/b", "/B" })
        folders.push_back(folderAt(path));
    folders.sort();
    std::string order;
    for (const DBFolder& folder : folders)
        order += folder.toString();
    EXPECT_EQ("/B/a/a/b/b/c", order);
}

TEST(DBFolderTest, livesInContainersByValue)
{
    std::stack<DBFolder> folders;
    folders.push(someFolder());
    DBFolder folder = folders.top();
    folder.resetFolder();
    EXPECT_EQ(dump(someFolder()), dump(folders.top()));
}

} // namespace
