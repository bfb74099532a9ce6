#include "ctl/Catalogue.h"

#include "SampleCatalogue.h"
#include "ctl/CatalogueUri.h"
#include "ctl/Problem.h"
#include "ctl/Query.h"
#include "ctl/Reading.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace {

const std::string oneFile = "insert into Files(folder_id, path, name, category, size, modified_time, created_time,"
                            " is_deleted, last_updated_time) values (1, '/a', 'a', 4, 7, 1, 1, 0, 1);";

long long countFiles(const Catalogue& catalogue)
{
    Query query(catalogue, "select count(*) from Files");
    EXPECT_TRUE(query.next());
    return query.number(0);
}

/// What opening it says against it; "" when it opens.
std::string problemOf(const std::string& path)
{
    try {
        const Catalogue catalogue(path);
        return "";
    } catch (const Problem& problem) {
        return problem.what();
    }
}

class CatalogueTest : public ::testing::Test {
protected:
    void expectProblem(const std::string& text) const
    {
        EXPECT_NE(std::string::npos, problemOf(sample.path()).find(text)) << problemOf(sample.path());
    }

    SampleCatalogue sample;
};

TEST_F(CatalogueTest, isReadWhileItsWriterHasItOpen)
{
    sample.run(oneFile);
    const Catalogue catalogue(sample.path());
    EXPECT_EQ(1, countFiles(catalogue));
    sample.run(oneFile);
    EXPECT_EQ(2, countFiles(catalogue));
}

TEST_F(CatalogueTest, staysTheSameForAReading)
{
    const Catalogue catalogue(sample.path());
    {
        const Reading reading(catalogue);
        sample.run(oneFile);
        EXPECT_EQ(0, countFiles(catalogue));
    }
    EXPECT_EQ(1, countFiles(catalogue));
}

TEST_F(CatalogueTest, aReadingThatCannotBeginLeavesNoTransaction)
{
    sample.run("PRAGMA journal_mode=DELETE");
    const Catalogue catalogue(sample.path());
    sample.run("begin exclusive");
    EXPECT_THROW(const Reading reading(catalogue), Problem);
    sample.run("commit");
    const Reading reading(catalogue);
    EXPECT_EQ(0, countFiles(catalogue));
}

TEST_F(CatalogueTest, aRowThatTheDaemonCannotHaveWrittenIsNamedAsSuch)
{
    sample.run("insert into Folders(parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)"
               " values (-1, printf('%.*c', 30000, 'x'), '', 1, 1, 0, 1)");
    const Catalogue catalogue(sample.path());
    Query query(catalogue, "select path from Folders");
    try {
        query.next();
        ADD_FAILURE() << "it was read";
    } catch (const Problem& problem) {
        EXPECT_NE(std::string::npos, std::string(problem.what()).find("a name is too long")) << problem.what();
    }
}

TEST_F(CatalogueTest, isReadAfterTheWritersEndAndAfterItsDeath)
{
    sample.run(oneFile);
    sample.killWriter();
    EXPECT_EQ(1, countFiles(Catalogue(sample.path())));
    EXPECT_TRUE(sample.folder.exists(".quarrow/quarrow.db-wal"));
    SampleCatalogue other;
    other.run(oneFile);
    other.stopWriter();
    EXPECT_EQ(1, countFiles(Catalogue(other.path())));
    EXPECT_FALSE(other.folder.exists(".quarrow/quarrow.db-wal"));
}

/// The daemon may watch this folder: what it sees there wakes it.
class FolderWatch {
public:
    explicit FolderWatch(const SampleCatalogue& sample)
        : watcher(inotify_init1(IN_NONBLOCK))
    {
        EXPECT_GE(inotify_add_watch(watcher, sample.folder.path(".quarrow").c_str(),
                      IN_ATTRIB | IN_CLOSE_WRITE | IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO),
            0);
    }
    ~FolderWatch() { close(watcher); }
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;

    /// Whether something has changed since it was last asked.
    bool hasSeen() const
    {
        char event[4096];
        return read(watcher, event, sizeof event) > 0;
    }

private:
    const int watcher;
};

TEST_F(CatalogueTest, readingLeavesNoTraceInItsFolder)
{
    sample.run(oneFile);
    const FolderWatch watch(sample);
    EXPECT_EQ(1, countFiles(Catalogue(sample.path())));
    EXPECT_FALSE(watch.hasSeen());
    sample.run(oneFile);
    EXPECT_TRUE(watch.hasSeen()); // it does see changes
    sample.run("PRAGMA wal_checkpoint(TRUNCATE)");
    chmod(sample.path().c_str(), 0640); // another mode than that of the log, which is empty
    EXPECT_TRUE(watch.hasSeen());
    EXPECT_EQ(2, countFiles(Catalogue(sample.path())));
    EXPECT_FALSE(watch.hasSeen());
}

TEST_F(CatalogueTest, readingLeavesNoTraceAfterTheWriterEither)
{
    sample.run(oneFile);
    sample.killWriter();
    const FolderWatch afterAKill(sample);
    EXPECT_EQ(1, countFiles(Catalogue(sample.path())));
    EXPECT_FALSE(afterAKill.hasSeen());
    SampleCatalogue other;
    other.stopWriter();
    const FolderWatch afterAStop(other);
    EXPECT_EQ(0, countFiles(Catalogue(other.path())));
    EXPECT_FALSE(afterAStop.hasSeen());
}

TEST_F(CatalogueTest, theLogOfAnEmptyFileIsKept)
{
    sample.run(oneFile);
    sample.killWriter();
    sample.folder.writeFile(".quarrow/quarrow.db", "");
    expectProblem("This is another program's database");
    EXPECT_TRUE(sample.folder.exists(".quarrow/quarrow.db-wal"));
}

TEST_F(CatalogueTest, behindALinkItsSideFilesAreBesideTheTarget)
{
    sample.run(oneFile);
    TemporaryFolder elsewhere;
    const std::string link = elsewhere.path("quarrow.db");
    ASSERT_EQ(0, symlink(sample.path().c_str(), link.c_str()));
    EXPECT_EQ(1, countFiles(Catalogue(link)));
    sample.killWriter();
    unlink((sample.path() + "-wal").c_str());
    ASSERT_EQ(0, mkfifo((sample.path() + "-wal").c_str(), 0644));
    EXPECT_NE(std::string::npos, problemOf(link).find("quarrow.db-wal: This is no regular file")) << problemOf(link);
}

TEST_F(CatalogueTest, linksOfStrangersAreNotFollowed)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a link away";
    TemporaryFolder elsewhere;
    const std::string link = elsewhere.path("quarrow.db");
    ASSERT_EQ(0, symlink(sample.path().c_str(), link.c_str()));
    ASSERT_EQ(0, lchown(link.c_str(), 65534, 65534));
    EXPECT_NE(std::string::npos, problemOf(link).find("behind another user's link")) << problemOf(link);
}

TEST_F(CatalogueTest, pathHasToBeAbsolute)
{
    EXPECT_EQ("v/quarrow.db: The volume's root is no absolute path: where it is depends on the daemon's current folder."
              " Write an absolute path into <Root>.",
        problemOf("v/quarrow.db"));
}

TEST_F(CatalogueTest, tablesThatComputeAreRefused)
{
    sample.run("alter table Files add column more int generated always as (length(path) + 1) virtual");
    expectProblem("This is another program's database");
}

TEST_F(CatalogueTest, mayLieAtAnyPath)
{
    sample.run(oneFile);
    sample.stopWriter();
    for (const std::string name : { "a b%41?mode=rw#x&y", "\xff\n\t\"';", "%" }) {
        const std::string path
            = sample.folder.writeFile(name + "/quarrow.db", sample.folder.readFile(".quarrow/quarrow.db"));
        EXPECT_EQ(1, countFiles(Catalogue(path))) << path;
    }
}

TEST_F(CatalogueTest, cannotBeWritten)
{
    const Catalogue catalogue(sample.path());
    EXPECT_THROW(Query(catalogue, "delete from Files").next(), Problem);
}

TEST_F(CatalogueTest, missingOneIsNamed)
{
    EXPECT_EQ("/nowhere/quarrow.db: There is no catalogue. The daemon makes it when it starts: does it run, and is the"
              " volume mounted?",
        problemOf("/nowhere/quarrow.db"));
}

TEST_F(CatalogueTest, whatIsNoRegularFileIsRefusedAtOnce)
{
    for (const char* suffix : { "-wal", "-shm", "-journal", "" }) {
        SampleCatalogue other;
        other.stopWriter();
        const std::string place = other.path() + suffix;
        unlink(place.c_str());
        ASSERT_EQ(0, mkfifo(place.c_str(), 0644)); // a program that opened it would wait for ever
        EXPECT_NE(std::string::npos, problemOf(other.path()).find("is no regular file")) << place;
    }
}

TEST_F(CatalogueTest, foreignFilesAreRefused)
{
    sample.stopWriter();
    sample.folder.writeFile(".quarrow/quarrow.db", std::string(5000, 'x'));
    expectProblem("This is no catalogue: file is not a database");
    sample.folder.writeFile(".quarrow/quarrow.db", "");
    expectProblem("This is another program's database");
}

TEST_F(CatalogueTest, foreignTablesAndViewsAreRefused)
{
    SampleCatalogue renamed;
    renamed.run("alter table Files rename column size to length");
    EXPECT_NE(std::string::npos, problemOf(renamed.path()).find("no such column: size"));
    sample.run("drop table Files; create view Files as with recursive n(i) as (select 1 union all select i+1 from n)"
               " select i as file_id from n"); // it would never end
    expectProblem("This is another program's database");
}

TEST_F(CatalogueTest, damagedOneIsRefusedWhereTheDamageIsMet)
{
    sample.run("with recursive n(i) as (select 1 union all select i+1 from n where i<5000) insert into Files(folder_id,"
               " path, name, category, size, modified_time, created_time, is_deleted, last_updated_time) select 1,"
               " '/'||i, i, 4, 7, 1, 1, 0, 1 from n");
    sample.stopWriter();
    const std::string whole = sample.folder.readFile(".quarrow/quarrow.db");
    sample.folder.writeFile(".quarrow/quarrow.db", whole.substr(0, whole.size() / 2)); // a copy that was interrupted
    try {
        countFiles(Catalogue(sample.path()));
        ADD_FAILURE() << "half of a catalogue was read";
    } catch (const Problem& problem) {
        EXPECT_NE(std::string::npos, std::string(problem.what()).find("The catalogue is damaged")) << problem.what();
    }
}

TEST_F(CatalogueTest, lockedOneIsWaitedForAndThenNamed)
{
    sample.run("PRAGMA journal_mode=DELETE; begin exclusive");
    expectProblem("Another program has the catalogue locked");
}

TEST_F(CatalogueTest, filesThatADaemonIsAboutToMakeAreWaitedFor)
{
    sample.killWriter();
    const std::string aside = sample.folder.path("aside");
    for (const std::string suffix : { "-wal", "-shm" })
        ASSERT_EQ(0, rename((sample.path() + suffix).c_str(), (aside + suffix).c_str()));
    EXPECT_NE("", problemOf(sample.path()));
    std::thread daemon([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(120));
        for (const std::string suffix : { "-wal", "-shm" })
            rename((aside + suffix).c_str(), (sample.path() + suffix).c_str());
    });
    EXPECT_EQ("", problemOf(sample.path()));
    daemon.join();
}

TEST_F(CatalogueTest, queryReadsBytesAsTheyAre)
{
    sample.run("insert into Folders(parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)"
               " values (-1, cast(x'2fff0a' as text), '', 1, 1, 0, -5)");
    const Catalogue catalogue(sample.path());
    Query query(
        catalogue, "select path, name, last_updated_time, null from Folders where path=? and last_updated_time=?");
    query.bind("/\xff\n").bind(-5);
    ASSERT_TRUE(query.next());
    EXPECT_EQ("/\xff\n", query.bytes(0));
    EXPECT_EQ("", query.bytes(1));
    EXPECT_EQ(-5, query.number(2));
    EXPECT_FALSE(query.isNull(1));
    EXPECT_TRUE(query.isNull(3));
    EXPECT_FALSE(query.next());
    query.reset();
    EXPECT_FALSE(query.bind("/").bind(-5).next());
}

} // namespace
