#include "FuzzSupport.h"

#include "db/Transaction.h"
#include "db/VolumeDBManager.h"

#include <algorithm>
#include <map>

namespace {

struct FolderRow {
    int id;
    int parentId;
    bool isDeleted;
    int modified;
};

struct FileRow {
    int folderId;
    bool isDeleted;
};

std::string upToLastSlash(const std::string& path)
{
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(0, slash);
}

std::string afterLastSlash(const std::string& path)
{
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

/// The tables, by path, and the operations on them in memory.
class ExpectedCatalogue {
public:
    FolderRow* live(const std::string& path)
    {
        const auto found = folders.find(path);
        return found == folders.end() || found->second.isDeleted ? nullptr : &found->second;
    }

    int idOf(const std::string& path)
    {
        const FolderRow* row = live(path);
        return row == nullptr ? -1 : row->id;
    }

    /// What insertFolder() returns, and in `left` what it leaves in the caller's record.
    bool insertFolder(const std::string& path, bool isRoot, int modified, FolderRow& left)
    {
        if (const FolderRow* row = live(path)) {
            left = *row;
            return false;
        }
        if (isRoot) {
            const bool isRevived = folders.count(path) == 1;
            put(path, -1, modified);
            left = { isRevived ? folders[path].id : 0, -1, false, modified };
            return true;
        }
        left = { 0, 0, false, modified };
        // From the folder upwards. A missing folder takes its parent with it, present or not, and the climb goes on
        // above that; it ends at a root.
        std::vector<std::string> chain = chainTo(path);
        while (!chain.empty()) {
            const std::string current = chain.back();
            chain.pop_back();
            if (const FolderRow* row = live(current)) {
                left = { row->id, row->parentId, false, modified };
                if (row->parentId == -1)
                    break;
                continue;
            }
            const std::string parent = chain.empty() ? "" : chain.back();
            if (!chain.empty())
                chain.pop_back();
            const int parentId = idOf(parent);
            const bool isRevived = folders.count(current) == 1;
            put(current, parentId, current == path ? modified : 0);
            left = { isRevived ? folders[current].id : 0, parentId, false, modified };
        }
        return true;
    }

    bool deleteFolder(const std::string& path)
    {
        FolderRow* row = live(path);
        if (row == nullptr)
            return false;
        std::vector<int> below = { row->id };
        while (!below.empty()) {
            const int id = below.back();
            below.pop_back();
            for (auto& [name, file] : files)
                file.isDeleted = file.isDeleted || file.folderId == id;
            for (auto& [name, folder] : folders) {
                if (folder.id == id)
                    folder.isDeleted = true;
                else if (folder.parentId == id && !folder.isDeleted)
                    below.push_back(folder.id);
            }
        }
        return true;
    }

    bool insertFile(const std::string& path)
    {
        const auto found = files.find(path);
        if (found != files.end() && !found->second.isDeleted)
            return false;
        const std::string folder = upToLastSlash(path);
        int folderId = idOf(folder);
        if (live(folder) == nullptr) {
            FolderRow left;
            insertFolder(folder, false, 0, left);
            folderId = left.id;
        }
        files[path] = { folderId, false };
        return true;
    }

    std::vector<int> childrenOf(int id) const
    {
        std::vector<int> ids;
        for (const auto& [path, row] : folders) {
            if (row.parentId == id && !row.isDeleted)
                ids.push_back(row.id);
        }
        std::sort(ids.begin(), ids.end());
        return ids;
    }

    std::map<std::string, FolderRow> folders;
    std::map<std::string, FileRow> files;

private:
    static std::vector<std::string> chainTo(const std::string& path)
    {
        std::vector<std::string> chain;
        std::string prefix;
        std::string element;
        for (const char c : path + "/") {
            if (c != '/') {
                element += c;
            } else if (!element.empty()) {
                prefix += "/" + element;
                chain.push_back(prefix);
                element.clear();
            }
        }
        return chain;
    }

    void put(const std::string& path, int parentId, int modified)
    {
        const auto found = folders.find(path);
        const int id = found == folders.end() ? static_cast<int>(folders.size()) + 1 : found->second.id;
        folders[path] = { id, parentId, false, modified };
    }
};

/// The catalogue, one for all inputs: each has its rows rolled back.
class Subject {
public:
    Subject() { catalogue.open(folder.path("quarrow.db").c_str()); }

    PrivateFolder folder; // goes after the catalogue is closed
    VolumeDBManager catalogue;
};

DBFolder folderAt(const std::string& path, int modified)
{
    DBFolder folder;
    folder.setPath(path);
    folder.setModified_time(modified);
    return folder;
}

DBFile fileAt(const std::string& path)
{
    DBFile file;
    file.setPath(path);
    file.setName(afterLastSlash(path));
    return file;
}

/// One line: a letter for the operation, then the path.
void perform(VolumeDBManager& catalogue, ExpectedCatalogue& expected, const std::string& line, int number)
{
    const std::string path = line.substr(1);
    if (line[0] == '-') {
        DBFolder folder = folderAt(path, number);
        REQUIRE(catalogue.deleteFolder(folder) == expected.deleteFolder(path));
    } else if (line[0] == 'f') {
        DBFile file = fileAt(path);
        REQUIRE(catalogue.insertFile(file) == expected.insertFile(path));
    } else {
        const bool isRoot = line[0] == 'r';
        DBFolder folder = folderAt(path, number);
        FolderRow left;
        REQUIRE(catalogue.insertFolder(folder, isRoot) == expected.insertFolder(path, isRoot, number, left));
        REQUIRE(folder.getFolder_id() == left.id);
        REQUIRE(folder.getParent_id() == left.parentId);
        REQUIRE(folder.getPath() == path);
    }
}

/// Every row is there as it should be, and no other live one.
void compare(VolumeDBManager& catalogue, ExpectedCatalogue& expected)
{
    for (const auto& [path, row] : expected.folders) {
        DBFolder live = folderAt(path, 0);
        REQUIRE(catalogue.folderExists(live) == !row.isDeleted);
        DBFolder any = folderAt(path, 0);
        REQUIRE(catalogue.folderRowExists(any));
        REQUIRE(any.getFolder_id() == row.id);
        REQUIRE(any.getParent_id() == row.parentId);
        REQUIRE(any.getName() == afterLastSlash(path));
        REQUIRE(row.isDeleted || live.getModified_time() == row.modified);
        std::vector<int> children = catalogue.getListOfFolders(row.id);
        std::sort(children.begin(), children.end());
        REQUIRE(children == expected.childrenOf(row.id));
        REQUIRE(catalogue.findRootFolder(path) == (row.parentId == -1 && !row.isDeleted ? path : ""));
    }
    std::vector<int> roots = catalogue.getListOfFolders(-1);
    std::sort(roots.begin(), roots.end());
    REQUIRE(roots == expected.childrenOf(-1));
    for (const auto& [path, row] : expected.files) {
        DBFile file = fileAt(path);
        REQUIRE(catalogue.fileExists(file) == !row.isDeleted);
        DBFile any = fileAt(path);
        REQUIRE(catalogue.fileRowExists(any));
        REQUIRE(any.getFolder_id() == row.folderId);
    }
}

} // namespace

/// Each line is an operation: 'r' a root folder, 'f' a file, '-' a deletion, any other letter a folder; then its path.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Subject subject;
    VolumeDBManager& catalogue = subject.catalogue;
    takeLog();

    InputBytes input(data, size);
    const Transaction undone(catalogue);
    ExpectedCatalogue expected;
    for (int number = 1; number <= 40 && !input.isEmpty(); ++number) {
        std::string line = input.takeLine();
        line = line.substr(0, line.find('\0')); // no path holds one
        if (!line.empty())
            perform(catalogue, expected, line, number);
    }
    undone.requireOpen();
    compare(catalogue, expected);
    for (const std::string& logged : takeLog())
        REQUIRE(logged.compare(0, 15, "6 Row for file ") == 0 || logged.compare(0, 17, "6 Row for folder ") == 0);
    return 0;
}
