#include "db/ConnectionProbe.h"
#include "db/ReopenedCatalogueTest.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

class CatalogueSchemaTest : public ReopenedCatalogueTest { };

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

TEST_F(CatalogueSchemaTest, openMakesTheDirectoriesTheFileAndTheSchema)
{
    db = std::make_unique<VolumeDBManager>();
    EXPECT_TRUE(db->open(dbPath.c_str()));
    EXPECT_EQ(schema, dumpSchema());
    EXPECT_EQ((std::vector<LogLine> { version, generating }), loggedLines());
}

TEST_F(CatalogueSchemaTest, theSchemaStatementsAreRunAsTheyAreWrittenAndInThisOrder)
{
    const ConnectionProbe probe;
    open();
    const std::string run = probe.statements();
    const std::string::size_type start = run.find("create table");
    ASSERT_NE(std::string::npos, start) << run;
    EXPECT_EQ(schemaStatements, run.substr(start, schemaStatements.size()));
}

TEST_F(CatalogueSchemaTest, theSchemaOfAnEmptyFileCanBeMadeAndItsResultIsFalse)
{
    volume.writeFile(".quarrow/quarrow.db");
    openNew();
    EXPECT_FALSE(db->createDBStructure());
    EXPECT_EQ((std::vector<LogLine> { generating }), loggedLines());
    EXPECT_EQ(schema, dumpSchema());
}

TEST_F(CatalogueSchemaTest, onlyTheLastSchemaStatementCounts)
{
    openNew();
    change("drop index Folders_name");
    EXPECT_FALSE(db->createDBStructure()); // ten statements fail, the eleventh does not
    EXPECT_EQ((std::vector<LogLine> { generating }), loggedLines());
    EXPECT_EQ(schema, dumpSchema());
}

TEST_F(CatalogueSchemaTest, aFailureOfTheLastSchemaStatementIsLoggedAndThrown)
{
    openNew();
    EXPECT_THROW(db->createDBStructure(), DBOperationException);
    EXPECT_EQ((std::vector<LogLine> { generating, { LOG_ERR, "createDBStructure() failed, handleStatus: 1\n" } }),
        loggedLines());
}

TEST_F(CatalogueSchemaTest, aPassingFailureLeavesNoHalfSchema)
{
    const ConnectionProbe probe;
    for (const std::string statement : { "create table Files", "create index Files_name" }) {
        ConnectionProbe interrupting;
        interrupting.atTheStartOf(statement, [&] { interrupting.interrupt(); });
        expectRefused({ LOG_ERR, "open() failed, handleStatus: 7\n" });
        EXPECT_EQ("", dumpCatalogueFolder());
    }
    openNew();
    EXPECT_EQ("11\n", countSchema());
}

TEST_F(CatalogueSchemaTest, whatSomebodyElseHasPutIntoTheSchemaIsRefusedEachTime)
{
    if (!isRoot())
        GTEST_SKIP() << "changing owners is not permitted";
    for (const std::string sql : {
             "create trigger t after insert on Folders begin select 1; end",
             "create view v as select 1",
             "create virtual table f using fts5(x)",
             "create table t(x)",
             "create index i on Files(size)",
             "create index i on Files(path like name)",
             "analyze",
             "alter table Files add column x default(1)",
             "alter table Folders rename column is_system to x",
             "drop index Files_name; create index Files_name on Files(name) where size > 0",
             "drop table Files; create table Files(path text check(path not like '%a%a%a%'))",
         }) {
        SCOPED_TRACE(sql);
        makeClosed();
        change(sql);
        giveAway(dbPath);
        expectRefused(notAuthorized);
        expectRefused(notAuthorized);
        fs::remove(dbPath);
    }
}

TEST_F(CatalogueSchemaTest, whatPassesForSomethingElseInTheSchemaIsRefused)
{
    if (!isRoot())
        GTEST_SKIP() << "changing owners is not permitted";
    const std::string trigger = "CREATE TRIGGER t after insert on Folders begin select 1; end";
    for (const std::string set :
        { "type='table'", "type='index'", "tbl_name='sqlite_sequence'", "name='Files_name'" }) {
        SCOPED_TRACE(set);
        makeClosed();
        change(trigger);
        change("pragma writable_schema=1; update sqlite_master set " + set + " where type='trigger'");
        giveAway(dbPath);
        clearLog();
        EXPECT_THROW(open(), DBOperationException);
        const LogLine damaged { LOG_ERR, "open() failed, handleStatus: 11\n" }; // by SQLite's own look
        EXPECT_TRUE(loggedLines().back() == damaged || loggedLines().back() == notAuthorized);
        db.reset();
        fs::remove(dbPath);
    }
}

TEST_F(CatalogueSchemaTest, aSchemaOfSomebodyElseIsNotReadToItsEnd)
{
    if (!isRoot())
        GTEST_SKIP() << "changing owners is not permitted";
    makeClosed();
    std::string tables = "begin;";
    for (int table = 0; table < 4000; ++table)
        tables += "create table t" + std::to_string(table) + "(x);";
    change(tables + "commit");
    giveAway(dbPath);
    const auto before = sqlite3_memory_used();
    sqlite3_memory_highwater(1);
    expectRefused(notAuthorized);
    const auto most = sqlite3_memory_highwater(0);
    EXPECT_LT(0, most) << "or it is not counted";
    EXPECT_GT(500000, most - before);
}

TEST_F(CatalogueSchemaTest, triggersOfAnAdministratorWork)
{
    makeClosed();
    change("create table Counts(n); create trigger t after insert on Folders begin insert into Counts values(1); end");
    for (int start = 0; start < 2; ++start) {
        open();
        DBFolder folder = folderAt("/Films" + std::to_string(start));
        EXPECT_TRUE(db->insertFolder(folder, true));
        close();
    }
    EXPECT_EQ("2\n", query("select count(*) from Counts"));
}
