#pragma once

#include "db/VolumeDBManager.h"
#include "support/CatalogueDump.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

/// A volume with the place of its catalogue. Nothing is opened yet.
class CatalogueTest : public testing::Test {
protected:
    CatalogueTest();

    /// Opens the catalogue with a manager of its own; closes the one that was open.
    void open();
    void close() { db.reset(); }
    /// Opens a new catalogue and forgets what was logged so far.
    void openNew();

    std::string query(const std::string& sql) const;
    void change(const std::string& sql) const;

    /// One line a row: "1 in -1 '/Music' live", by id.
    std::string dumpFolders() const { return dumpFoldersById(dbPath); }
    std::string dumpFiles() const { return dumpFilesById(dbPath); }
    /// Names and texts of the tables and indexes, in the order of their making.
    std::string dumpSchema() const;
    /// What stands beside the catalogue, the catalogue included: one name a line, sorted.
    std::string dumpCatalogueFolder() const;

    /// Writes a live row with the times 10 (modified), 20 (created) and 30 (updated), past the manager.
    void insertFolderRow(const std::string& path, int parentId) const;
    /// The rows of folders down to the id 10000, each in the one before it, the first in that parent, whose id is the
    /// highest so far. A path is the prefix with the id.
    void insertDeepTree(int parentId, const std::string& prefix) const;
    /// How many tables and indexes there are.
    std::string countSchema() const;
    /// The same for a file of category 2 and 5 bytes.
    void insertFileRow(const std::string& path, int folderId) const;

    TemporaryFolder volume;
    std::string catalogueFolder;
    std::string dbPath;
    std::unique_ptr<VolumeDBManager> db;
};

DBFolder folderAt(const std::string& path);
/// With times to be told apart.
DBFolder folderAt(const std::string& path, int modifiedTime, int createdTime);
/// The name is the path's last element.
DBFile fileAt(const std::string& path);
DBFile fileAt(const std::string& path, int category, long long size, int modifiedTime, int createdTime);

/// "3 in 1 '/Music/Rock' 'Rock' modified 10 created 20 live"
std::string describe(const DBFolder& f);
/// "3 in 1 '/Music/a.mp3' 'a.mp3' category 2 size 5 modified 10 created 20"
std::string describe(const DBFile& f);

/// The seconds that SQLite's 'now' has; std::time() may lag a few milliseconds behind.
long long secondsNow();

/// What insertFolderRow() runs.
std::string folderRow(const std::string& path, int parentId);

/// Runs it on a thread whose stack is as small as that of a walk.
void runOnTheStackOfAWalk(const std::function<void()>& call);

/// Whether the call ended with a DBOperationException.
bool throwsOperationException(const std::function<void()>& call);
