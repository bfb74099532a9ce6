#include "db/DBFile.h"
#include "db/DBFolder.h"
#include "db/DBOpenException.h"
#include "db/DBOperationException.h"
#include "db/SimpleDBFile.h"

#include <gtest/gtest.h>

#include <climits>
#include <deque>
#include <exception>
#include <list>
#include <stack>
#include <string>
#include <type_traits>

static_assert(std::has_virtual_destructor_v<DBFile>);
static_assert(std::has_virtual_destructor_v<DBFolder>);
static_assert(std::has_virtual_destructor_v<SimpleDBFile>);
static_assert(!std::is_default_constructible_v<SimpleDBFile>, "built from path, name and the two times only");
static_assert(std::is_same_v<long long, decltype(std::declval<const DBFile>().getSize())>);
static_assert(std::is_same_v<void (DBFile::*)(long long), decltype(&DBFile::setSize)>);
static_assert(std::is_same_v<std::string, decltype(std::declval<const DBFile>().getPath())>, "a copy, not a reference");
static_assert(std::is_same_v<std::string, decltype(std::declval<const DBFolder>().getPath())>);
static_assert(std::is_same_v<std::string, decltype(std::declval<const SimpleDBFile>().getPath())>);
static_assert(std::is_same_v<std::string, decltype(std::declval<const DBFile>().getName())>);
static_assert(std::is_same_v<std::string, decltype(std::declval<const DBFolder>().getName())>);
static_assert(std::is_same_v<std::string, decltype(std::declval<const SimpleDBFile>().getName())>);

namespace {

/// Every field: file, folder, name, path, category, size, modified, updated, created, deleted.
std::string dump(const DBFile& file)
{
    return std::to_string(file.getFile_id()) + " " + std::to_string(file.getFolder_id()) + " '" + file.getName() + "' '"
        + file.getPath() + "' " + std::to_string(file.getCategory()) + " " + std::to_string(file.getSize()) + " "
        + std::to_string(file.getModified_time()) + " " + std::to_string(file.getLast_updated_time()) + " "
        + std::to_string(file.getCreated_time()) + (file.getIs_deleted() ? " deleted" : " live");
}

/// Every field: folder, parent, path, name, deleted, updated, created, modified.
std::string dump(const DBFolder& folder)
{
    return std::to_string(folder.getFolder_id()) + " " + std::to_string(folder.getParent_id()) + " '" + folder.getPath()
        + "' '" + folder.getName() + (folder.getIs_deleted() ? "' deleted " : "' live ")
        + std::to_string(folder.getLast_updated_time()) + " " + std::to_string(folder.getCreated_time()) + " "
        + std::to_string(folder.getModified_time());
}

/// Every field: path, name, modified, created.
std::string dump(const SimpleDBFile& file)
{
    return "'" + file.getPath() + "' '" + file.getName() + "' " + std::to_string(file.getModifiedTime()) + " "
        + std::to_string(file.getCreatedTime());
}

DBFile someFile()
{
    DBFile file;
    file.setFile_id(1);
    file.setFolder_id(2);
    file.setName("x.mp3");
    file.setPath("/v/music/x.mp3");
    file.setCategory(3);
    file.setSize(4);
    file.setModified_time(5);
    file.setLast_updated_time(6);
    file.setCreated_time(7);
    file.setIs_deleted(true);
    return file;
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

SimpleDBFile simpleFile(const std::string& path, const std::string& name) { return SimpleDBFile(path, name, 0, 0); }

TEST(DBFile, holdsWhatWasSet) { EXPECT_EQ("1 2 'x.mp3' '/v/music/x.mp3' 3 4 5 6 7 deleted", dump(someFile())); }

TEST(DBFile, hasDefinedValuesFromTheStart) { EXPECT_EQ("-1 -1 '' '' -1 0 0 0 0 live", dump(DBFile())); }

TEST(DBFile, keepsItsDeletedMarkWhenReset)
{
    DBFile file = someFile();
    file.reset();
    EXPECT_EQ("-1 -1 '' '' -1 0 0 0 0 deleted", dump(file));
    file = someFile();
    file.setIs_deleted(false);
    file.reset();
    EXPECT_EQ("-1 -1 '' '' -1 0 0 0 0 live", dump(file));
}

TEST(DBFile, holdsSizesBeyond32Bits)
{
    DBFile file;
    file.setSize(LLONG_MAX);
    EXPECT_EQ(LLONG_MAX, file.getSize());
    file.setSize(5'000'000'000);
    EXPECT_EQ(5'000'000'000, file.getSize());
    file.setSize(-1);
    EXPECT_EQ(-1, file.getSize());
}

TEST(DBFile, holdsAnyTimeAndId)
{
    DBFile file;
    file.setModified_time(INT_MIN);
    file.setCreated_time(INT_MAX);
    file.setFile_id(INT_MAX);
    EXPECT_EQ(std::to_string(INT_MAX) + " -1 '' '' -1 0 " + std::to_string(INT_MIN) + " 0 " + std::to_string(INT_MAX)
            + " live",
        dump(file));
}

TEST(DBFile, isCopiedInAllItsFields)
{
    DBFile original = someFile();
    const DBFile copy(original);
    DBFile assigned;
    assigned = original;
    original.setName("y");
    original.setPath("/y");
    original.setFile_id(9);
    EXPECT_EQ(dump(someFile()), dump(copy));
    EXPECT_EQ(dump(someFile()), dump(assigned));
}

TEST(DBFile, givesCopiesOfItsStrings)
{
    const DBFile file = someFile();
    std::string path = file.getPath();
    path += "changed";
    EXPECT_EQ("/v/music/x.mp3", file.getPath());
}

TEST(DBFile, isShownAsPathAndName)
{
    EXPECT_EQ("/v/music/x.mp3 | x.mp3", someFile().toString());
    EXPECT_EQ(" | ", DBFile().toString());
}

TEST(DBFile, equalsOneOfTheSameNameAndPathWhateverElseTheyHold)
{
    DBFile other;
    other.setName("x.mp3");
    other.setPath("/v/music/x.mp3");
    EXPECT_TRUE(someFile() == other);
    EXPECT_TRUE(other == someFile());
    EXPECT_TRUE(DBFile() == DBFile());
}

TEST(DBFile, differsInNameOrPathByteByByte)
{
    const auto differs = [](const std::string& path, const std::string& name) {
        DBFile other = someFile();
        other.setPath(path);
        other.setName(name);
        return !(someFile() == other) && !(other == someFile());
    };
    EXPECT_FALSE(differs("/v/music/x.mp3", "x.mp3"));
    EXPECT_TRUE(differs("/v/music/x.mp3", "y.mp3"));
    EXPECT_TRUE(differs("/w/music/x.mp3", "x.mp3"));
    EXPECT_TRUE(differs("/v/music/x.mp3", "X.mp3"));
    EXPECT_TRUE(differs("/v/music/x.mp3", std::string("x.mp3\0", 6)));
}

TEST(DBFolder, holdsWhatWasSet) { EXPECT_EQ("1 2 '/v/music' 'music' deleted 3 4 5", dump(someFolder())); }

TEST(DBFolder, hasDefinedValuesFromTheStart) { EXPECT_EQ("0 0 '' '' live 0 0 0", dump(DBFolder())); }

TEST(DBFolder, becomesZeroInAllFieldsWhenResetIdsAndDeletedMarkToo)
{
    DBFolder folder = someFolder();
    folder.resetFolder();
    EXPECT_EQ("0 0 '' '' live 0 0 0", dump(folder));
}

TEST(DBFolder, isCopiedInAllItsFields)
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

TEST(DBFolder, isShownAsItsPathAlone) { EXPECT_EQ("/v/music", someFolder().toString()); }

TEST(DBFolder, equalsOneOfTheSamePathWhateverItsName)
{
    EXPECT_TRUE(folderAt("/a", "one") == folderAt("/a", "two"));
    EXPECT_TRUE(someFolder() == folderAt("/v/music"));
    EXPECT_FALSE(folderAt("/a", "one") == folderAt("/b", "one"));
    EXPECT_FALSE(folderAt("/a") == folderAt("/A"));
    EXPECT_FALSE(folderAt("/a") == folderAt("/a/"));
}

TEST(DBFolder, isLessThanOneOfTheSamePathAndTheOtherWayRoundToo)
{
    const DBFolder one = folderAt("/a", "one");
    const DBFolder two = folderAt("/a", "two");
    EXPECT_TRUE(one < two);
    EXPECT_TRUE(two < one);
    EXPECT_TRUE(one < one);
}

TEST(DBFolder, isOrderedByThePathInBytes)
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

TEST(DBFolder, isSortedInAListInSpiteOfItsOrder)
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

TEST(SimpleDBFile, holdsWhatItWasBuiltFrom)
{
    EXPECT_EQ("'/v/x.mp3' 'x.mp3' 1 2", dump(SimpleDBFile("/v/x.mp3", "x.mp3", 1, 2)));
}

TEST(SimpleDBFile, isEmptyAfterReset)
{
    SimpleDBFile file("/v/x.mp3", "x.mp3", 1, 2);
    file.reset();
    EXPECT_EQ("'' '' 0 0", dump(file));
}

TEST(SimpleDBFile, isCopiedInAllItsFields)
{
    SimpleDBFile original("/v/x.mp3", "x.mp3", 1, 2);
    const SimpleDBFile copy(original);
    SimpleDBFile assigned("", "", 0, 0);
    assigned = original;
    original.reset();
    EXPECT_EQ("'/v/x.mp3' 'x.mp3' 1 2", dump(copy));
    EXPECT_EQ("'/v/x.mp3' 'x.mp3' 1 2", dump(assigned));
}

TEST(SimpleDBFile, equalsOneOfTheSameNameAndPathWhateverItsTimes)
{
    EXPECT_TRUE(SimpleDBFile("/a", "a", 1, 2) == SimpleDBFile("/a", "a", 3, 4));
    EXPECT_FALSE(simpleFile("/a", "a") == simpleFile("/a", "b"));
    EXPECT_FALSE(simpleFile("/a", "a") == simpleFile("/b", "a"));
    EXPECT_FALSE(simpleFile("/a", "a") == simpleFile("/a", "A"));
}

TEST(SimpleDBFile, isLessOnlyWhenNeitherPathNorNameIsGreater)
{
    EXPECT_TRUE(simpleFile("/a", "a") < simpleFile("/b", "b"));
    EXPECT_FALSE(simpleFile("/a", "z") < simpleFile("/b", "a")); // not lexicographic
    EXPECT_FALSE(simpleFile("/b", "a") < simpleFile("/a", "z"));
    EXPECT_FALSE(simpleFile("/b", "b") < simpleFile("/a", "a"));
    EXPECT_TRUE(simpleFile("/a", "x") < simpleFile("/b", "x"));
    EXPECT_FALSE(simpleFile("/b", "x") < simpleFile("/a", "x"));
    EXPECT_TRUE(simpleFile("/a", "x") < simpleFile("/a", "y"));
    EXPECT_FALSE(simpleFile("/a", "y") < simpleFile("/a", "x"));
}

TEST(SimpleDBFile, isLessThanOneOfTheSamePathAndNameAndTheOtherWayRoundToo)
{
    EXPECT_TRUE(SimpleDBFile("/a", "a", 1, 2) < SimpleDBFile("/a", "a", 3, 4));
    EXPECT_TRUE(SimpleDBFile("/a", "a", 3, 4) < SimpleDBFile("/a", "a", 1, 2));
}

TEST(Records, liveInContainersByValue)
{
    std::deque<DBFile> files { someFile() };
    std::stack<DBFolder> folders;
    folders.push(someFolder());
    DBFile file = files.front();
    file.reset();
    DBFolder folder = folders.top();
    folder.resetFolder();
    EXPECT_EQ(dump(someFile()), dump(files.front()));
    EXPECT_EQ(dump(someFolder()), dump(folders.top()));
}

/// What a caller sees who knows only the standard exception.
template <typename Thrown>
std::string whatIsCaught()
{
    try {
        throw Thrown();
    } catch (const std::exception& caught) {
        return caught.what();
    }
}

TEST(CatalogueExceptions, areStandardExceptionsWithFixedTexts)
{
    EXPECT_EQ("DBOperationException occurred", whatIsCaught<DBOperationException>());
    EXPECT_EQ("DBOpenException occurred", whatIsCaught<DBOpenException>());
}

TEST(CatalogueExceptions, areNotOneAnother)
{
    EXPECT_FALSE((std::is_base_of_v<DBOperationException, DBOpenException>));
    EXPECT_FALSE((std::is_base_of_v<DBOpenException, DBOperationException>));
}

TEST(CatalogueExceptions, theExceptionsSayWhichTheyAre)
{
    try {
        throw DBOperationException();
    } catch (const std::exception& e) {
        EXPECT_STREQ("DBOperationException occurred", e.what());
    }
    try {
        throw DBOpenException();
    } catch (const std::exception& e) {
        EXPECT_STREQ("DBOpenException occurred", e.what());
    }
}

} // namespace
