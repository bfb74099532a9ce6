#pragma once

#include "volume/SystemHooks.h"
#include "volume/VolumeTest.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

/// A name of blanks, both quotes, what printf() takes for conversions, a newline and bytes that are no UTF-8.
inline const std::string oddName = " 'it' \"is\" 100%s%d;\n\xff\xc0\x80 .mp3";

/// A manager that is told of single events, with the crawl paths /Music and /Films.
class HandlerTest : public VolumeTest {
public:
    HandlerTest()
    {
        initializeQuietly();
        configure({ "/Music", "/Films" });
    }

    // Each calls the handler for what is at the volume-relative path (the last element is the name), and returns what
    // it printed on standard output. What was logged before is gone.

    std::string newFile(const std::string& at) { return tell(&VolumeManager::handleNewFile, at); }
    std::string modifyFile(const std::string& at) { return tell(&VolumeManager::handleModifyFile, at); }
    std::string deleteFile(const std::string& at) { return tell(&VolumeManager::handleDeleteFile, at); }
    std::string newFolder(const std::string& at) { return tell(&VolumeManager::handleNewFolder, at); }
    std::string deleteFolder(const std::string& at) { return tell(&VolumeManager::handleDeleteFolder, at); }
    std::string moveFile(const std::string& from, const std::string& to)
    {
        return tellOfMove(&VolumeManager::handleMoveFile, from, to);
    }
    std::string moveFolder(const std::string& from, const std::string& to)
    {
        return tellOfMove(&VolumeManager::handleMoveFolder, from, to);
    }

    /// Makes a file with these contents and this modified time.
    void put(const std::string& below, const std::string& content, time_t modified) const
    {
        setModifiedTime(volume.writeFile(below, content), modified);
    }
    /// Puts something else in the place of what is there, if anything.
    void replaceByLink(const std::string& below, const std::string& target) const
    {
        volume.remove(below);
        ASSERT_EQ(0, symlink(volume.path(target).c_str(), volume.path(below).c_str()));
    }
    /// Moves it on disk.
    void rename(const std::string& from, const std::string& to) const
    {
        ASSERT_EQ(0, ::rename((root + from).c_str(), (root + to).c_str()));
    }
    /// The inode's change on disk, which is what a row is created with.
    std::string changeTime(const std::string& below) const
    {
        struct stat64 status = {};
        EXPECT_EQ(0, lstat64(volume.path(below).c_str(), &status));
        return std::to_string(static_cast<int>(status.st_ctime)) + "\n";
    }

    /// "folder 2 'Rock' in 1 /Music/Rock 77" and "file 1 'a.mp3' in 2 /Music/Rock/a.mp3 2 5 88 written"
    std::string rows() const { return dumpRowsById(dbPath()); }

    /// A full walk of both crawl paths, which every handler must leave possible; the errors that it logged.
    std::vector<LogLine> errorsOfAFullWalk()
    {
        walk("/Music");
        std::vector<LogLine> failures = loggedErrors();
        walk("/Films");
        const std::vector<LogLine> more = loggedErrors();
        failures.insert(failures.end(), more.begin(), more.end());
        return failures;
    }

    /// Runs a pragma on the manager's own connection, by way of an event that changes nothing.
    void runOnItsConnection(const std::string& pragma)
    {
        const OnStatement hook([&pragma](const std::string&, sqlite3* connection) {
            EXPECT_EQ(SQLITE_OK, sqlite3_exec(connection, pragma.c_str(), nullptr, nullptr, nullptr));
        });
        deleteFile("/nothing");
    }

private:
    using EntryHandler = void (VolumeManager::*)(std::string&, const char*);
    using MoveHandler = void (VolumeManager::*)(std::string&, const char*, std::string&, const char*);

    std::string folderOf(const std::string& at) const { return root + at.substr(0, at.rfind('/')); }
    static std::string nameOf(const std::string& at) { return at.substr(at.rfind('/') + 1); }

    std::string tell(EntryHandler handler, const std::string& at)
    {
        clearLog();
        testing::internal::CaptureStdout();
        std::string dir = folderOf(at);
        (*manager.*handler)(dir, nameOf(at).c_str());
        EXPECT_EQ(folderOf(at), dir);
        return testing::internal::GetCapturedStdout();
    }

    std::string tellOfMove(MoveHandler handler, const std::string& from, const std::string& to)
    {
        clearLog();
        testing::internal::CaptureStdout();
        std::string fromDir = folderOf(from);
        std::string toDir = folderOf(to);
        (*manager.*handler)(fromDir, nameOf(from).c_str(), toDir, nameOf(to).c_str());
        EXPECT_EQ(folderOf(from), fromDir);
        EXPECT_EQ(folderOf(to), toDir);
        return testing::internal::GetCapturedStdout();
    }
};

/// What happens to the manager's lock and its catalogue, while the object lives: "(" and ")" as the lock is taken and
/// released, and between them B, C and R for the statements of a transaction and s for a run of others.
class LockTrace {
public:
    explicit LockTrace(const VolumeManager& manager)
        : onWait([this, &manager](sem_t* semaphore) {
            const auto* place = reinterpret_cast<const char*>(semaphore);
            const auto* start = reinterpret_cast<const char*>(&manager);
            EXPECT_TRUE(place >= start && place < start + sizeof manager) << "not the volume's";
            EXPECT_FALSE(held) << "the lock is not recursive";
            trace += "(";
            return std::exchange(held, true); // a second wait would last for ever
        })
        , onPost([this] {
            held = false;
            trace += ")";
        })
        , onStatement([this](const std::string& sql, sqlite3*) {
            EXPECT_TRUE(held) << sql;
            const char mark = sql == "BEGIN" || sql == "COMMIT" || sql == "ROLLBACK" ? sql.front() : 's';
            if (mark != 's' || trace.back() != 's')
                trace += mark;
        })
    {
    }

    const std::string& text() const { return trace; }

private:
    bool held = false;
    std::string trace;
    OnSemWait onWait;
    OnSemPost onPost;
    OnStatement onStatement;
};

/// A catalogue of two crawl paths and one file, all of it with times that no disk gives.
class FileChangesTest : public HandlerTest {
protected:
    FileChangesTest()
    {
        put("Music/a.mp3", "12345", 100);
        volume.makeFolder("Films");
        setModifiedTime(volume.path("Music"), 10);
        setModifiedTime(volume.path("Films"), 20);
        walk("/Music");
        walk("/Films");
        change("update Files set created_time = 50");
        ageRows();
        clearLog();
        EXPECT_EQ(folderRows + fileA, rows());
    }

    std::string createdTimes() const { return query("select created_time from Files order by file_id"); }

    const std::string folderRows = "folder 1 'Music' in -1 /Music 10\nfolder 2 'Films' in -1 /Films 20\n";
    const std::string fileA = "file 1 'a.mp3' in 1 /Music/a.mp3 2 5 100\n";
    const std::string before = folderRows + fileA;
    const std::vector<LogLine> nothing;
};

/// The same with a tree of folders, which are watched.
class FolderChangesTest : public HandlerTest {
protected:
    FolderChangesTest()
    {
        put("Music/Rock/Live/b.mp3", "1", 200);
        put("Music/Rock/a.mp3", "12345", 100);
        volume.makeFolder("Films");
        settle({ "Music/Rock/Live", "Music/Rock", "Music", "Films" });
        walk("/Music");
        walk("/Films");
        change("update Folders set created_time = 50; update Files set created_time = 50");
        ageRows();
        clearLog();
        EXPECT_EQ(before, rows());
        EXPECT_EQ(4, watches());
    }

    /// Gives folders the modified time 10, so that rows tell what was taken from the disk.
    void settle(const std::vector<std::string>& below) const
    {
        for (const std::string& path : below)
            setModifiedTime(volume.path(path), 10);
    }
    std::string createdTime(const std::string& path) const
    {
        return query("select created_time from Folders where path = '" + path + "'");
    }
    static int walks() { return timesLoggedFrom("Finished walk. "); }
    /// The first line of the log, or an error that no expectation matches.
    static LogLine firstLine() { return loggedLines().empty() ? err("nothing was logged") : loggedLines().front(); }

    const std::string topFolders = "folder 1 'Music' in -1 /Music 10\n";
    const std::string rock = "folder 2 'Rock' in 1 /Music/Rock 10";
    const std::string live = "folder 3 'Live' in 2 /Music/Rock/Live 10";
    const std::string films = "folder 4 'Films' in -1 /Films 10\n";
    const std::string fileA = "file 1 'a.mp3' in 2 /Music/Rock/a.mp3 2 5 100";
    const std::string fileB = "file 2 'b.mp3' in 3 /Music/Rock/Live/b.mp3 2 1 200";
    const std::string beforeFiles = topFolders + rock + "\n" + live + "\n" + films;
    const std::string before = beforeFiles + fileA + "\n" + fileB + "\n";
    const std::string gone = " deleted written\n";
    const std::vector<LogLine> nothing;
};
