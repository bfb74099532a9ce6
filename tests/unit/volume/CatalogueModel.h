#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

/// What the catalogue and the watches of one volume have to look like, worked out a second time from the disk and from
/// what was done there. Knows the rules by which a change is followed, and nothing of statements, transactions, ids or
/// the kernel's events.
///
/// Paths are volume-relative, as in the catalogue. The disk is looked at when a change is told, not when it was made.
class CatalogueModel {
public:
    /// Why a row may be out of date until the next full walk.
    enum Reason { folderTimes, liveTarget, movedOn, unseen, untold, cutSize, reasons };
    static const char* describe(Reason reason);

    /// `root`: absolute path of the volume. `start`: where full walks begin, "" or with a slash in front.
    CatalogueModel(std::string root, std::string start);

    // What one event of a watched folder leaves

    void newFile(const std::string& path);
    void modifiedFile(const std::string& path);
    void deletedFile(const std::string& path);
    void movedFile(const std::string& from, const std::string& to);
    void newFolder(const std::string& path);
    void deletedFolder(const std::string& path);
    void movedFolder(const std::string& from, const std::string& to);

    // What no event tells

    /// A walk of the folder and of all below it.
    void walk(const std::string& path);
    /// The folder is removed: the kernel ends its watch, of which the registry learns by the event alone.
    void lostFolder(const std::string& path);
    /// Something was made, removed or renamed in the folder.
    void touchedFolder(const std::string& path);
    /// What stands there came up unseen.
    void cameUnseen(const std::string& path);
    /// The file changed in a way that the watches are not asked to tell.
    void changedUntold(const std::string& path);
    /// Each live row has been given this created time, which no disk has.
    static int oddCreatedTime(const std::string& path) { return 1000 + static_cast<int>(path.length()); }
    void setOddCreatedTimes();

    /// Whether changes in the folder make events.
    bool isWatched(const std::string& path) const;
    /// How many watches go by this path: that of a folder which was there before is not given up first.
    int watchesAt(const std::string& path) const;
    int watches() const { return static_cast<int>(watchPaths.size()); }
    /// One line a row, folders first, by path: "folder [/Music/Rock] [Rock] in [/Music] ..." with category, created and
    /// modified time and whether it is hidden; a file's size comes after its category.
    std::string liveRows() const;
    /// The other rows, which nothing removes but a purge: "file [/Music/a.mp3] [a.mp3]".
    std::string deletedRows() const;
    /// The error lines that the events so far had to log; forgets them.
    std::vector<std::string> takeErrors();
    /// The rows that the next full walk may correct, by the beginning of their line in liveRows().
    std::map<std::string, Reason> unsettled() const;

private:
    struct File {
        long long size;
        int modified;
        int created;
        int category;
    };
    struct Folder {
        int modified;
        int created;
    };

    std::string full(const std::string& path) const { return root + path; }
    void insertFile(const std::string& path, File file);
    void insertFolder(const std::string& path, Folder folder);
    void updateFile(const std::string& path);
    void walkFolder(const std::string& path);
    void removeRows(const std::string& path);
    void addWatch(const std::string& path);
    void removeWatch(const std::string& path);

    const std::string root;
    const std::string start;
    std::map<std::string, File> files; ///< live rows, by path
    std::map<std::string, Folder> folders;
    std::set<std::string> everFiles; ///< every path that has a row, which is never removed
    std::set<std::string> everFolders;
    std::map<std::string, Reason> staleFiles; ///< rows that the next walk may correct
    std::map<std::string, Reason> staleFolders;
    std::vector<std::string> errors;

    std::map<int, std::string> watchPaths; ///< watch -> path; one whose folder is gone stays until its path is given up
    std::map<ino_t, int> watchOf;          ///< folder -> watch
    int latestWatch = 0;
};
