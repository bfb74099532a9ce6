#include "ctl/report/FolderTree.h"

#include <functional>

/// Beyond so many, what is in a folder counts as lying in the one above. Another program's rows could name half as many
/// folders as they have bytes.
constexpr std::size_t mostFolders = 1000000;

FolderTree::FolderTree() { folders.push_back({ 0, {}, {} }); }

std::size_t FolderTree::PlaceHash::operator()(const Place& place) const
{
    return std::hash<std::string_view>()(place.name) ^ (place.parent * static_cast<std::size_t>(0x9e3779b97f4a7c15U));
}

std::size_t FolderTree::child(std::size_t parent, std::string_view name)
{
    const auto found = places.find({ parent, name });
    if (found != places.end())
        return found->second;
    if (folders.size() == mostFolders)
        return parent;
    folders.push_back({ parent, std::string(name), {} });
    places.emplace(Place { parent, folders.back().name }, folders.size() - 1);
    return folders.size() - 1;
}

std::size_t FolderTree::folder(std::string_view path)
{
    if (path == lastPath)
        return lastIndex;
    lastPath = path;
    lastIndex = 0;
    while (!path.empty()) {
        const std::size_t slash = path.find('/');
        const std::string_view name = path.substr(0, slash);
        if (!name.empty())
            lastIndex = child(lastIndex, name);
        path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
    }
    return lastIndex;
}

void FolderTree::addFile(std::string_view path, std::size_t category, long long size)
{
    const std::size_t slash = path.rfind('/');
    folders[folder(path.substr(0, slash == std::string_view::npos ? 0 : slash))].direct.add(category, size);
}
