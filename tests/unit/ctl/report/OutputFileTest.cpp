#include "ctl/report/OutputFile.h"

#include "ctl/Problem.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <dirent.h>
#include <unistd.h>

namespace {

class OutputFileTest : public testing::Test {
protected:
    std::string refusal(const std::string& path) const
    {
        try {
            OutputFile { path };
        } catch (const Problem& problem) {
            return problem.what();
        }
        return "";
    }

    /// The entries of the folder, less "." and "..".
    int entries() const
    {
        int count = -2;
        DIR* const listing = opendir(folder.path().c_str());
        while (readdir(listing) != nullptr)
            ++count;
        closedir(listing);
        return count;
    }

    mode_t mode(const std::string& name) const
    {
        struct stat status;
        return stat(folder.path(name).c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
    }

    TemporaryFolder folder;
};

TEST_F(OutputFileTest, aNewFileHasTheUsualMode)
{
    const OutputFile file(folder.path("report.html"));
    EXPECT_EQ(0, entries());
    const mode_t mask = umask(027);
    file.replace("text");
    umask(mask);
    EXPECT_EQ("text", folder.readFile("report.html"));
    EXPECT_EQ(0640U, mode("report.html"));
    EXPECT_EQ(1, entries());
}

TEST_F(OutputFileTest, anOlderOneIsReplacedWithItsMode)
{
    const std::string path = folder.writeFile("report.html", "old and longer");
    chmod(path.c_str(), 0604);
    ASSERT_EQ(0, link(path.c_str(), folder.path("kept").c_str()));
    OutputFile(path).replace("new");
    EXPECT_EQ("new", folder.readFile("report.html"));
    EXPECT_EQ(0604U, mode("report.html"));
    EXPECT_EQ("old and longer", folder.readFile("kept")); // replaced, not written over
    EXPECT_EQ(2, entries());
}

TEST_F(OutputFileTest, whatIsNoRegularFileIsRefused)
{
    folder.makeFolder("folder");
    folder.writeFile("target");
    ASSERT_EQ(0, symlink("target", folder.path("link").c_str()));
    ASSERT_EQ(0, mkfifo(folder.path("pipe").c_str(), 0600));
    for (const char* name : { "folder", "folder/", "link", "pipe", "new/" })
        EXPECT_NE("", refusal(folder.path(name))) << name;
    EXPECT_NE(std::string::npos, refusal("/dev/null").find("no regular file"));
    EXPECT_EQ("", refusal(folder.path("target")));
}

TEST_F(OutputFileTest, aFolderThatIsMissingIsRefused)
{
    EXPECT_NE(std::string::npos, refusal(folder.path("none/report.html")).find("No such file or directory"));
    EXPECT_NE("", refusal(""));
}

TEST_F(OutputFileTest, theDaemonsFolderIsRefused)
{
    folder.writeFile(".quarrow/quarrow.db", "catalogue");
    ASSERT_EQ(0, symlink(".quarrow", folder.path("link").c_str()));
    for (const char* name : { ".quarrow/quarrow.db", ".quarrow/new", "link/new" })
        EXPECT_NE(std::string::npos, refusal(folder.path(name)).find("Only the daemon")) << name;
}

TEST_F(OutputFileTest, aFailureLeavesTheOldFileAlone)
{
    const std::string path = folder.writeFile("in/report.html", "old");
    const OutputFile file(path);
    folder.remove("in");
    EXPECT_THROW(file.replace("new"), Problem);
    folder.makeFolder("in/report.html"); // a folder cannot be replaced by a file
    EXPECT_THROW(file.replace("new"), Problem);
    EXPECT_EQ(0, rmdir(path.c_str()));
    EXPECT_EQ(0, rmdir(folder.path("in").c_str())); // so nothing else is left in it
}

} // namespace
