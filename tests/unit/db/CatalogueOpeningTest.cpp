#include "db/ReopenedCatalogueTest.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

class CatalogueOpeningTest : public ReopenedCatalogueTest {
protected:
    VolumeDBManager manager; ///< that never opens a catalogue

    static unsigned modeOf(const std::string& path)
    {
        struct stat status = {};
        EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
        return status.st_mode & 07777U;
    }
};

} // namespace

TEST_F(CatalogueOpeningTest, openingASecondTimeGeneratesNothingAndKeepsTheRows)
{
    open();
    insertFolderRow("/Music", -1);
    close();
    clearLog();
    open();
    EXPECT_EQ((std::vector<LogLine> { version }), loggedLines());
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(CatalogueOpeningTest, anEmptyFileGetsNoSchemaAndTheFirstStatementFails)
{
    volume.writeFile(".quarrow/quarrow.db");
    open();
    EXPECT_EQ((std::vector<LogLine> { version }), loggedLines());
    EXPECT_EQ("", dumpSchema());
    DBFolder folder = folderAt("/Music");
    EXPECT_THROW(db->folderExists(folder), DBOperationException);
}

TEST_F(CatalogueOpeningTest, aForeignDatabaseIsOpenedAndLeftAsItIs)
{
    volume.writeFile(".quarrow/quarrow.db");
    change("create table Recipes(title text)");
    change("insert into Recipes values('Soup')");
    open();
    DBFile file = fileAt("/a.mp3");
    EXPECT_THROW(db->fileExists(file), DBOperationException);
    close();
    EXPECT_EQ("Recipes: CREATE TABLE Recipes(title text)\n", dumpSchema());
    EXPECT_EQ("Soup\n", query("select title from Recipes"));
}

TEST_F(CatalogueOpeningTest, garbageIsOpenedFailsAtTheFirstStatementAndStaysAsItIs)
{
    const std::string garbage(5000, 'x');
    volume.writeFile(".quarrow/quarrow.db", garbage);
    open();
    clearLog();
    DBFolder folder = folderAt("/Music");
    EXPECT_THROW(db->folderExists(folder), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> { { LOG_ERR, "folderExists() failed, handleStatus: 21\n" } }), loggedLines());
    close();
    EXPECT_EQ(garbage, volume.readFile(".quarrow/quarrow.db"));
    EXPECT_EQ("quarrow.db\n", dumpCatalogueFolder());
}

TEST_F(CatalogueOpeningTest, aDirectoryInItsPlaceCannotBeOpened)
{
    volume.makeFolder(".quarrow/quarrow.db");
    EXPECT_THROW(open(), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> { version, { LOG_ERR, "open() failed, handleStatus: 14\n" } }), loggedLines());
    EXPECT_TRUE(fs::is_directory(dbPath));
}

TEST_F(CatalogueOpeningTest, aDirectoryThatCannotBeMadeShowsWhenTheCatalogueIsOpened)
{
    volume.writeFile(".quarrow", "a file in the way");
    EXPECT_THROW(open(), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> { version, { LOG_ERR, "open() failed, handleStatus: 14\n" } }), loggedLines());
    EXPECT_EQ("a file in the way", volume.readFile(".quarrow"));
}

TEST_F(CatalogueOpeningTest, checkIfDBExistsIsTrueForAFileAndADirectory)
{
    volume.writeFile(".quarrow/quarrow.db");
    EXPECT_TRUE(manager.checkIfDBExists(dbPath.c_str()));
    EXPECT_TRUE(manager.checkIfDBExists(catalogueFolder.c_str()));
}

TEST_F(CatalogueOpeningTest, checkIfDBExistsMakesTheDirectoriesForWhatIsMissing)
{
    EXPECT_FALSE(manager.checkIfDBExists(dbPath.c_str()));
    EXPECT_TRUE(fs::is_directory(catalogueFolder));
    EXPECT_FALSE(volume.exists(".quarrow/quarrow.db"));
}

TEST_F(CatalogueOpeningTest, ofWhatIsNoFileForSqliteMakesNothing)
{
    const std::string here = volume.makeFolder("here");
    fs::current_path(here);
    for (const char* path : { "", ":memory:", "file:quarrow.db", "file:" }) {
        clearLog();
        db = std::make_unique<VolumeDBManager>();
        EXPECT_TRUE(throwsOperationException([&] { db->open(path); })) << path;
        EXPECT_EQ(refused, loggedLines().back()) << path;
        db.reset();
        EXPECT_TRUE(fs::is_empty(here)) << path;
    }
    fs::current_path("/");
}

TEST_F(CatalogueOpeningTest, ofAPathThatIsTooLongForSqliteMakesNothing)
{
    std::string folder = volume.path();
    while (folder.length() < 480)
        folder += "/" + std::string(40, 'x');
    dbPath = folder + "/.quarrow/quarrow.db";
    expectRefused();
    EXPECT_FALSE(fs::exists(folder + "/.quarrow/quarrow.db"));
}

TEST_F(CatalogueOpeningTest, createPathMakesEveryDirectoryAboveTheLastElement)
{
    EXPECT_FALSE(manager.createPath(volume.path("a/b/c/quarrow.db").c_str()));
    EXPECT_TRUE(fs::is_directory(volume.path("a/b/c")));
    EXPECT_FALSE(volume.exists("a/b/c/quarrow.db"));
}

TEST_F(CatalogueOpeningTest, createPathMakesThemWithMode0755)
{
    umask(0);
    manager.createPath(volume.path("a/b/quarrow.db").c_str());
    EXPECT_EQ(0755U, modeOf(volume.path("a")));
    EXPECT_EQ(0755U, modeOf(volume.path("a/b")));
}

TEST_F(CatalogueOpeningTest, createPathIsTrueForADirectoryThatIsThereAndMakesNothing)
{
    volume.makeFolder("a");
    EXPECT_TRUE(manager.createPath(volume.path("a").c_str()));
    EXPECT_TRUE(fs::is_empty(volume.path("a")));
}

TEST_F(CatalogueOpeningTest, createPathMakesTheLastElementWhenASlashFollows)
{
    EXPECT_FALSE(manager.createPath(volume.path("a/b/").c_str()));
    EXPECT_TRUE(fs::is_directory(volume.path("a/b")));
}

TEST_F(CatalogueOpeningTest, createPathTakesRelativePathsFromTheCurrentDirectory)
{
    const fs::path before = fs::current_path();
    fs::current_path(volume.path());
    EXPECT_FALSE(manager.createPath("a/b/quarrow.db"));
    fs::current_path(before);
    EXPECT_TRUE(fs::is_directory(volume.path("a/b")));
}

TEST_F(CatalogueOpeningTest, createPathOfANameInTheTopDirectoryMakesNothing)
{
    EXPECT_FALSE(manager.createPath("/quarrow-test-no-such-entry"));
    EXPECT_FALSE(fs::exists("/quarrow-test-no-such-entry"));
}

TEST_F(CatalogueOpeningTest, createPathLeavesAFileInTheWayAlone)
{
    volume.writeFile("a", "content");
    EXPECT_FALSE(manager.createPath(volume.path("a/b/quarrow.db").c_str()));
    EXPECT_EQ("content", volume.readFile("a"));
}

TEST_F(CatalogueOpeningTest, createPathOvercomesPathsOfMoreThan1024Bytes)
{
    std::string deep = "a";
    while (deep.size() < 1500)
        deep += "/" + std::string(200, 'd');
    EXPECT_FALSE(manager.createPath(volume.path(deep + "/quarrow.db").c_str()));
    EXPECT_TRUE(fs::is_directory(volume.path(deep)));
}
