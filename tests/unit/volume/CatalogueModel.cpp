#include "CatalogueModel.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <utility>

namespace fs = std::filesystem;

namespace {

std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

bool isAtOrBelow(const std::string& path, const std::string& folder)
{
    return (path + "/").compare(0, folder.length() + 1, folder + "/") == 0;
}

/// Removes every entry of the folder's tree. Files and folders are apart: the path of a folder may be an old file's.
template <typename Map>
void eraseTree(Map& folders, const std::string& path)
{
    for (auto entry = folders.begin(); entry != folders.end();)
        entry = isAtOrBelow(entry->first, path) ? folders.erase(entry) : std::next(entry);
}

template <typename Map>
void eraseFilesBelow(Map& files, const std::string& folder)
{
    for (auto entry = files.begin(); entry != files.end();)
        entry = isAtOrBelow(folderOf(entry->first), folder) ? files.erase(entry) : std::next(entry);
}

template <typename Map>
Map treeOf(const Map& folders, const std::string& path)
{
    Map found;
    std::copy_if(folders.begin(), folders.end(), std::inserter(found, found.end()),
        [&](const auto& entry) { return isAtOrBelow(entry.first, path); });
    return found;
}

template <typename Map>
Map filesBelow(const Map& files, const std::string& folder)
{
    Map found;
    std::copy_if(files.begin(), files.end(), std::inserter(found, found.end()),
        [&](const auto& entry) { return isAtOrBelow(folderOf(entry.first), folder); });
    return found;
}

/// Of the names that the test gives.
int categoryOf(const std::string& path)
{
    static const std::map<std::string, int> categories = { { "avi", 1 }, { "mp3", 2 }, { "jpg", 3 } };
    const std::string name = nameOf(path);
    const auto dot = name.rfind('.');
    const auto category = categories.find(dot == std::string::npos ? "" : name.substr(dot + 1));
    return category == categories.end() ? 4 : category->second;
}

std::optional<struct stat> statusOf(const std::string& path, mode_t type)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0 || (status.st_mode & S_IFMT) != type)
        return std::nullopt;
    return status;
}

/// The size as a look-up of the row reads it.
long long cut(long long size) { return static_cast<int>(size); }

std::string hidden(const std::string& path) { return path.find("/.") == std::string::npos ? " 0" : " 1"; }

std::string line(const std::string& kind, const std::string& path)
{
    return kind + " [" + path + "] [" + nameOf(path) + "]";
}

} // namespace

const char* CatalogueModel::describe(Reason reason)
{
    switch (reason) {
    case folderTimes:
        return "what happens in a folder changes its times, which only a walk of it brings up to date";
    case liveTarget:
        return "a move to where a live row stands is not recorded: both rows stay as they were";
    case movedOn:
        return "a move whose new place is empty by the time it is handled leaves the old rows";
    case unseen:
        return "what came up where nothing watches, or while the kernel's queue was full, has no row; a modify event does "
               "not insert one";
    case untold:
        return "a modified time that is set without the access time counts as a write that has not ended";
    case cutSize:
        return "a row that is moved or brought back to life gets the low 32 bits of the size";
    case reasons:
        break;
    }
    return "?";
}

CatalogueModel::CatalogueModel(std::string volumeRoot, std::string startPath)
    : root(std::move(volumeRoot))
    , start(std::move(startPath))
{
}

// Events

void CatalogueModel::newFile(const std::string& path)
{
    const auto status = statusOf(full(path), S_IFREG);
    if (!status)
        return;
    if (files.count(path) != 0)
        updateFile(path);
    else
        insertFile(path,
            { status->st_size, static_cast<int>(status->st_mtime), static_cast<int>(status->st_ctime),
                categoryOf(path) });
}

void CatalogueModel::modifiedFile(const std::string& path)
{
    if (!statusOf(full(path), S_IFREG))
        return;
    if (files.count(path) != 0)
        updateFile(path);
    else
        errors.push_back("There is an error condition here for " + full(folderOf(path)) + " " + nameOf(path) + "\n");
}

void CatalogueModel::deletedFile(const std::string& path)
{
    files.erase(path);
    staleFiles.erase(path);
}

void CatalogueModel::movedFile(const std::string& from, const std::string& to)
{
    const auto row = files.find(from);
    if (!statusOf(full(to), S_IFREG)) {
        errors.push_back("Error!!! New file " + nameOf(to) + " does not exist on the filesystem\n");
        if (row != files.end())
            staleFiles[from] = movedOn;
    } else if (row == files.end()) {
        staleFiles.erase(from);
        if (files.count(to) != 0)
            staleFiles[to] = liveTarget; // no second live row is inserted
        else
            newFile(to);
    } else if (files.count(to) != 0) {
        staleFiles[from] = liveTarget;
        staleFiles[to] = liveTarget;
    } else {
        File moved = row->second;
        moved.category = categoryOf(to);
        const bool isCut = cut(moved.size) != moved.size;
        moved.size = cut(moved.size);
        const auto known = staleFiles.find(from);
        const auto reason = known == staleFiles.end() ? std::nullopt : std::optional<Reason>(known->second);
        deletedFile(from);
        insertFile(to, moved);
        if (reason)
            staleFiles[to] = *reason;
        if (isCut)
            staleFiles[to] = cutSize;
    }
}

void CatalogueModel::newFolder(const std::string& path)
{
    const auto status = statusOf(full(path), S_IFDIR);
    if (!status)
        return;
    const auto row = folders.find(path);
    if (row != folders.end())
        row->second.modified = static_cast<int>(status->st_mtime);
    walk(path);
}

void CatalogueModel::deletedFolder(const std::string& path)
{
    removeRows(path);
    removeWatch(path);
}

void CatalogueModel::movedFolder(const std::string& from, const std::string& to)
{
    const auto movedFolders = treeOf(folders, from);
    const auto movedFiles = filesBelow(files, from);
    const auto leaveSource = [&](Reason reason) {
        for (const auto& row : movedFolders)
            staleFolders[row.first] = reason;
        for (const auto& row : movedFiles)
            staleFiles[row.first] = reason;
    };
    if (!statusOf(full(to), S_IFDIR)) {
        leaveSource(movedOn);
    } else {
        if (folders.count(to) != 0) {
            leaveSource(liveTarget);
        } else {
            removeRows(from);
            for (const auto& [path, row] : movedFolders)
                insertFolder(to + path.substr(from.length()), row);
            for (const auto& [path, row] : movedFiles)
                insertFile(to + path.substr(from.length()), row);
        }
        walk(to);
    }
    removeWatch(from);
    addWatch(to);
}

// No events

void CatalogueModel::walk(const std::string& path)
{
    if (!statusOf(full(path), S_IFDIR))
        return;
    eraseFilesBelow(staleFiles, path);
    eraseTree(staleFolders, path);
    walkFolder(path);
    std::vector<std::string> below;
    for (const auto& entry : fs::directory_iterator(full(path))) {
        const std::string child = path + "/" + entry.path().filename().string();
        if (entry.symlink_status().type() == fs::file_type::directory && child != "/.quarrow")
            below.push_back(child);
    }
    for (const std::string& child : below)
        walk(child);
}

/// The folder's own row, those of its files, and what is gone from it.
void CatalogueModel::walkFolder(const std::string& path)
{
    const auto status = statusOf(full(path), S_IFDIR);
    const Folder onDisk = { static_cast<int>(status->st_mtime), static_cast<int>(status->st_ctime) };
    const auto row = folders.find(path);
    if (row == folders.end())
        insertFolder(path, onDisk);
    else if (row->second.modified != onDisk.modified)
        row->second = onDisk;
    addWatch(path);

    for (const auto& entry : fs::directory_iterator(full(path))) {
        if (entry.symlink_status().type() == fs::file_type::regular)
            newFile(path + "/" + entry.path().filename().string());
    }
    for (const auto& file : filesBelow(files, path)) {
        if (folderOf(file.first) == path && !statusOf(full(file.first), S_IFREG))
            deletedFile(file.first);
    }
    for (const auto& folder : treeOf(folders, path)) {
        if (folder.first != path && folderOf(folder.first) == path && !statusOf(full(folder.first), S_IFDIR))
            deletedFolder(folder.first);
    }
}

void CatalogueModel::lostFolder(const std::string& path)
{
    const auto status = statusOf(full(path), S_IFDIR);
    if (status)
        watchOf.erase(status->st_ino);
}

void CatalogueModel::touchedFolder(const std::string& path)
{
    if (folders.count(path) != 0)
        staleFolders[path] = folderTimes;
}

void CatalogueModel::cameUnseen(const std::string& path)
{
    if (!statusOf(full(path), S_IFDIR)) {
        staleFiles[path] = unseen;
        return;
    }
    staleFolders[path] = unseen;
    for (const auto& entry : fs::directory_iterator(full(path)))
        cameUnseen(path + "/" + entry.path().filename().string());
}

void CatalogueModel::changedUntold(const std::string& path)
{
    if (files.count(path) != 0)
        staleFiles[path] = untold;
}

void CatalogueModel::setOddCreatedTimes()
{
    for (auto& [path, row] : files)
        row.created = oddCreatedTime(path);
    for (auto& [path, row] : folders)
        row.created = oddCreatedTime(path);
}

// Rows

void CatalogueModel::insertFile(const std::string& path, File file)
{
    if (!everFiles.insert(path).second && cut(file.size) != file.size) {
        file.size = cut(file.size);
        staleFiles[path] = cutSize;
    }
    files.emplace(path, file);
}

void CatalogueModel::insertFolder(const std::string& path, Folder folder)
{
    everFolders.insert(path);
    folders.emplace(path, folder);
}

/// Category and created time stay, whatever the disk says.
void CatalogueModel::updateFile(const std::string& path)
{
    const auto status = statusOf(full(path), S_IFREG);
    File& row = files.at(path);
    row.size = status->st_size;
    row.modified = static_cast<int>(status->st_mtime);
    staleFiles.erase(path);
}

void CatalogueModel::removeRows(const std::string& path)
{
    eraseFilesBelow(files, path);
    eraseTree(folders, path);
    eraseFilesBelow(staleFiles, path);
    eraseTree(staleFolders, path);
}

std::map<std::string, CatalogueModel::Reason> CatalogueModel::unsettled() const
{
    std::map<std::string, Reason> all;
    for (const auto& [path, reason] : staleFiles)
        all["file [" + path + "]"] = reason;
    for (const auto& [path, reason] : staleFolders)
        all["folder [" + path + "]"] = reason;
    return all;
}

std::string CatalogueModel::liveRows() const
{
    std::string text;
    for (const auto& [path, row] : folders)
        text += line("folder", path) + (path == start ? " root" : " in [" + folderOf(path) + "]") + " -1 "
            + std::to_string(row.created) + " " + std::to_string(row.modified) + hidden(path) + "\n";
    for (const auto& [path, row] : files)
        text += line("file", path) + " in [" + folderOf(path) + "] " + std::to_string(row.category) + " "
            + std::to_string(row.size) + " " + std::to_string(row.created) + " " + std::to_string(row.modified)
            + hidden(path) + "\n";
    return text;
}

std::string CatalogueModel::deletedRows() const
{
    std::string text;
    for (const std::string& path : everFolders)
        text += folders.count(path) == 0 ? line("folder", path) + "\n" : "";
    for (const std::string& path : everFiles)
        text += files.count(path) == 0 ? line("file", path) + "\n" : "";
    return text;
}

std::vector<std::string> CatalogueModel::takeErrors() { return std::exchange(errors, {}); }

// Watches

/// A folder that is watched already is only known by its new path.
void CatalogueModel::addWatch(const std::string& path)
{
    const auto status = statusOf(full(path), S_IFDIR);
    if (!status)
        return;
    const auto watch = watchOf.emplace(status->st_ino, latestWatch + 1);
    if (watch.second)
        ++latestWatch;
    watchPaths[watch.first->second] = path;
}

void CatalogueModel::removeWatch(const std::string& path)
{
    const auto watch = std::find_if(
        watchPaths.begin(), watchPaths.end(), [&path](const auto& entry) { return entry.second == path; });
    if (watch == watchPaths.end())
        return;
    const auto folder = std::find_if(
        watchOf.begin(), watchOf.end(), [&watch](const auto& entry) { return entry.second == watch->first; });
    if (folder != watchOf.end())
        watchOf.erase(folder);
    watchPaths.erase(watch);
}

bool CatalogueModel::isWatched(const std::string& path) const
{
    const auto status = statusOf(full(path), S_IFDIR);
    return status && watchOf.count(status->st_ino) != 0;
}

int CatalogueModel::watchesAt(const std::string& path) const
{
    return static_cast<int>(std::count_if(
        watchPaths.begin(), watchPaths.end(), [&path](const auto& entry) { return entry.second == path; }));
}
