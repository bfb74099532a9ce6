#include "db/CatalogueTest.h"
#include "db/ConnectionProbe.h"
#include "db/DBOpenException.h"
#include "db/DBOperationException.h"
#include "support/SyslogCapture.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

class CatalogueFile : public CatalogueTest { };

const LogLine version = { LOG_INFO, std::string("sqlite version: ") + sqlite3_libversion() + "\n" };
const LogLine generating = { LOG_INFO, "Generating schema" };
const LogLine closed = { LOG_INFO, "sqlite3 handle closed\n" };

// As it is run. The blank after the parenthesis of the second belongs to it, "pame" and the lone "if not exists" too.
const std::string schemaStatements
    = "create table Folders(folder_id integer primary key AUTOINCREMENT, parent_id integer not null, path text not "
      "null , name text not null, category int default(-1) not null, created_time int not null, modified_time int not "
      "null, is_deleted boolean not null, is_backup boolean default(0) not null, is_hidden boolean default(0) not "
      "null, is_system boolean default(0) not null, last_updated_time int not null)\n"
      "create table Files(file_id integer primary key AUTOINCREMENT, folder_id integer not null, path text not null, "
      "name text not null, category int not null, size int not null, modified_time int not null, created_time int not "
      "null, is_deleted boolean not null, is_backup boolean default(0) not null, is_hidden boolean default(0) not "
      "null, is_system boolean default(0) not null, last_updated_time int not null, FOREIGN KEY(folder_id) REFERENCES "
      "Folders(folder_id) ON DELETE CASCADE) \n"
      "create index Files_path on Files(path)\n"
      "create index Files_last_updated_time on Files(last_updated_time)\n"
      "create index Files_folder_id on Files(folder_id)\n"
      "create index Files_name on Files(name)\n"
      "create index if not exists Files_path_pame on Files(path, name)\n"
      "create index Folders_path on Folders(path)\n"
      "create index Folders_last_updated_time on Folders(last_updated_time)\n"
      "create index Folders_parent_id on Folders(parent_id)\n"
      "create index Folders_name on Folders(name)\n";

// As SQLite keeps it.
const std::string schema
    = "Folders: CREATE TABLE Folders(folder_id integer primary key AUTOINCREMENT, parent_id integer not null, path "
      "text not null , name text not null, category int default(-1) not null, created_time int not null, "
      "modified_time int not null, is_deleted boolean not null, is_backup boolean default(0) not null, is_hidden "
      "boolean default(0) not null, is_system boolean default(0) not null, last_updated_time int not null)\n"
      "Files: CREATE TABLE Files(file_id integer primary key AUTOINCREMENT, folder_id integer not null, path text not "
      "null, name text not null, category int not null, size int not null, modified_time int not null, created_time "
      "int not null, is_deleted boolean not null, is_backup boolean default(0) not null, is_hidden boolean default(0) "
      "not null, is_system boolean default(0) not null, last_updated_time int not null, FOREIGN KEY(folder_id) "
      "REFERENCES Folders(folder_id) ON DELETE CASCADE)\n"
      "Files_path: CREATE INDEX Files_path on Files(path)\n"
      "Files_last_updated_time: CREATE INDEX Files_last_updated_time on Files(last_updated_time)\n"
      "Files_folder_id: CREATE INDEX Files_folder_id on Files(folder_id)\n"
      "Files_name: CREATE INDEX Files_name on Files(name)\n"
      "Files_path_pame: CREATE INDEX Files_path_pame on Files(path, name)\n"
      "Folders_path: CREATE INDEX Folders_path on Folders(path)\n"
      "Folders_last_updated_time: CREATE INDEX Folders_last_updated_time on Folders(last_updated_time)\n"
      "Folders_parent_id: CREATE INDEX Folders_parent_id on Folders(parent_id)\n"
      "Folders_name: CREATE INDEX Folders_name on Folders(name)\n";

} // namespace

TEST_F(CatalogueFile, openMakesTheDirectoriesTheFileAndTheSchema)
{
    db = std::make_unique<VolumeDBManager>();
    EXPECT_TRUE(db->open(dbPath.c_str()));
    EXPECT_EQ(schema, dumpSchema());
    EXPECT_EQ((std::vector<LogLine> { version, generating }), loggedLines());
}

TEST_F(CatalogueFile, theSchemaStatementsAreRunAsTheyAreWrittenAndInThisOrder)
{
    const ConnectionProbe probe;
    open();
    const std::string run = probe.statements();
    const std::string::size_type start = run.find("create table");
    ASSERT_NE(std::string::npos, start) << run;
    EXPECT_EQ(schemaStatements, run.substr(start, schemaStatements.size()));
}

TEST_F(CatalogueFile, openingASecondTimeGeneratesNothingAndKeepsTheRows)
{
    open();
    insertFolderRow("/Music", -1);
    close();
    clearLog();
    open();
    EXPECT_EQ((std::vector<LogLine> { version }), loggedLines());
    EXPECT_EQ("1 in -1 '/Music' live\n", dumpFolders());
}

TEST_F(CatalogueFile, foreignKeysAreNotEnforced)
{
    const ConnectionProbe probe;
    openNew();
    EXPECT_EQ(0, probe.pragma("foreign_keys"));
}

TEST_F(CatalogueFile, closingLogs)
{
    openNew();
    close();
    EXPECT_EQ((std::vector<LogLine> { closed }), loggedLines());
}

TEST_F(CatalogueFile, closingWhatWasNeverOpenedLogsToo)
{
    clearLog();
    std::make_unique<VolumeDBManager>().reset();
    EXPECT_EQ((std::vector<LogLine> { closed }), loggedLines());
}

TEST_F(CatalogueFile, anEmptyFileGetsNoSchemaAndTheFirstStatementFails)
{
    volume.writeFile(".quarrow/quarrow.db");
    open();
    EXPECT_EQ((std::vector<LogLine> { version }), loggedLines());
    EXPECT_EQ("", dumpSchema());
    DBFolder folder = folderAt("/Music");
    EXPECT_THROW(db->folderExists(folder), DBOperationException);
}

TEST_F(CatalogueFile, aForeignDatabaseIsOpenedAndLeftAsItIs)
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

TEST_F(CatalogueFile, garbageIsOpenedFailsAtTheFirstStatementAndStaysAsItIs)
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

TEST_F(CatalogueFile, aDirectoryInItsPlaceCannotBeOpened)
{
    volume.makeFolder(".quarrow/quarrow.db");
    EXPECT_THROW(open(), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> { version, { LOG_ERR, "open() failed, handleStatus: 14\n" } }), loggedLines());
    EXPECT_TRUE(fs::is_directory(dbPath));
}

TEST_F(CatalogueFile, aDirectoryThatCannotBeMadeShowsWhenTheCatalogueIsOpened)
{
    volume.writeFile(".quarrow", "a file in the way");
    EXPECT_THROW(open(), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> { version, { LOG_ERR, "open() failed, handleStatus: 14\n" } }), loggedLines());
    EXPECT_EQ("a file in the way", volume.readFile(".quarrow"));
}

TEST_F(CatalogueFile, aFailedOpenIsFollowedByAnOrderlyEnd)
{
    volume.makeFolder(".quarrow/quarrow.db");
    auto manager = std::make_unique<VolumeDBManager>();
    EXPECT_THROW(manager->open(dbPath.c_str()), DBOperationException);
    clearLog();
    manager.reset();
    EXPECT_EQ((std::vector<LogLine> { closed }), loggedLines());
}

TEST_F(CatalogueFile, checkIfDBExistsIsTrueForAFileAndADirectory)
{
    volume.writeFile(".quarrow/quarrow.db");
    VolumeDBManager manager;
    EXPECT_TRUE(manager.checkIfDBExists(dbPath.c_str()));
    EXPECT_TRUE(manager.checkIfDBExists(catalogueFolder.c_str()));
}

TEST_F(CatalogueFile, checkIfDBExistsMakesTheDirectoriesForWhatIsMissing)
{
    VolumeDBManager manager;
    EXPECT_FALSE(manager.checkIfDBExists(dbPath.c_str()));
    EXPECT_TRUE(fs::is_directory(catalogueFolder));
    EXPECT_FALSE(volume.exists(".quarrow/quarrow.db"));
}

TEST_F(CatalogueFile, theSchemaOfAnEmptyFileCanBeMadeAndItsResultIsFalse)
{
    volume.writeFile(".quarrow/quarrow.db");
    openNew();
    EXPECT_FALSE(db->createDBStructure());
    EXPECT_EQ((std::vector<LogLine> { generating }), loggedLines());
    EXPECT_EQ(schema, dumpSchema());
}

TEST_F(CatalogueFile, onlyTheLastSchemaStatementCounts)
{
    openNew();
    change("drop index Folders_name");
    EXPECT_FALSE(db->createDBStructure()); // ten statements fail, the eleventh does not
    EXPECT_EQ((std::vector<LogLine> { generating }), loggedLines());
    EXPECT_EQ(schema, dumpSchema());
}

TEST_F(CatalogueFile, aFailureOfTheLastSchemaStatementIsLoggedAndThrown)
{
    openNew();
    EXPECT_THROW(db->createDBStructure(), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> { generating, { LOG_ERR, "createDBStructure() failed, handleStatus: 1\n" } }),
        loggedLines());
}

TEST_F(CatalogueFile, theExceptionsSayWhichTheyAre)
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
