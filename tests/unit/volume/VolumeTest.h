#pragma once

#include "support/CatalogueDump.h"
#include "support/CatalogueReader.h"
#include "support/SyslogCapture.h"
#include "support/TemporaryFolder.h"
#include "support/Waiting.h"
#include "volume/VolumeManager.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <list>
#include <memory>
#include <string>
#include <vector>

/// Lines for expectations.
LogLine info(const std::string& text);
LogLine err(const std::string& text);

/// How many logged lines begin like this.
int timesLoggedFrom(const std::string& start);

/// Sets the modified time of a file or folder, not of what a link leads to.
void setModifiedTime(const std::string& path, time_t seconds);

/// A volume in a temporary folder with a manager that is destroyed at the end. Each has a name of its own, so that the
/// process-wide host configuration and watcher mix nothing up.
class VolumeTest : public ::testing::Test {
protected:
    VolumeTest();
    ~VolumeTest() override;

    /// Names the volume in the host configuration with these crawl and exclude paths.
    void configure(const std::list<std::string>& crawlPaths, const std::list<std::string>& excludePaths = {});
    bool initialize();
    /// initialize(), and forgets what it logged.
    void initializeQuietly();
    /// Ends the manager, so that nothing of it is left.
    void destroy();
    /// Ends the manager and makes one that knows the volume by a link; from here on that is the root.
    void useALinkToTheVolume();
    /// Walks what is `below` the volume ("" or with a slash in front) on this thread; what was logged before is gone.
    void walk(const std::string& below = "", bool isRootWalk = true);
    /// walkOnce(), and waits for the end of that walk; what was logged before is gone.
    void walkOnThread();

    /// Makes the folders and walks each, as if it were the only crawl path.
    void catalogueTopLevelFolders(const std::list<std::string>& names);

    std::string dbPath() const { return volume.path(".quarrow/quarrow.db"); }
    std::string statePath() const { return volume.path(".quarrow/quarrow-volume.xml"); }
    std::string query(const std::string& sql) const { return queryCatalogue(dbPath(), sql); }
    void change(const std::string& sql) const { changeCatalogue(dbPath(), sql); }

    /// "[/Music/Rock] in [/Music]\n"
    std::string folders() const { return dumpFoldersByPath(dbPath()); }
    /// "[/Music/a.mp3] 2 in [/Music]\n"
    std::string files() const { return dumpFilesByPath(dbPath()); }
    int liveFiles() const;
    /// Makes every row look as if it was last written in second 1, which no write leaves behind.
    void ageRows() const;
    /// The paths of folders and files, outside /.quarrow, that were written since ageRows(), by path.
    std::string writtenRows() const;

    /// Ends the watch of what is `below` the volume, and says whether there was one.
    bool endsWatchOf(const std::string& below) const;
    /// How many folders are watched that were not when the test began.
    int watches() const;
    /// The last line of a walk.
    LogLine watching(int folders) const;
    /// The line of a walk that had to give something up.
    LogLine gotAnException() const;
    /// What a walk logs about a folder.
    std::vector<LogLine> summary(
        const std::string& below, int addedFiles, int deletedFiles, int addedFolders, int deletedFolders) const;
    /// What was logged for the folder's summary is exactly this.
    void expectSummary(
        const std::string& below, int addedFiles, int deletedFiles, int addedFolders, int deletedFolders) const;

    TemporaryFolder volume;
    std::string name;                            ///< of the volume
    std::string root;                            ///< of the volume, as the manager takes it
    std::unique_ptr<TemporaryFolder> linkFolder; ///< holds the link to the volume
    std::unique_ptr<VolumeManager> manager;

private:
    int watchesBefore;
};
