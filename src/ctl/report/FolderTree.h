#pragma once

#include "ctl/Categories.h"

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

/// The folders of a volume with what lies directly in each. It is built from paths alone, because rows need not have
/// the rows above them.
class FolderTree {
public:
    struct Folder {
        std::size_t parent; ///< less than the folder's own index; the root's is 0
        std::string name;   ///< empty for the root
        CategoryTotals direct;
    };

    FolderTree();
    FolderTree(const FolderTree&) = delete;
    FolderTree& operator=(const FolderTree&) = delete;

    /// The index of the folder, which is made with all those above it when it is new. `path` is as in the catalogue;
    /// the empty one is the root, with the index 0.
    std::size_t folder(std::string_view path);
    /// Counts a file in the folder that it lies in.
    void addFile(std::string_view path, std::size_t category, long long size);

    const std::deque<Folder>& all() const { return folders; }

private:
    struct Place {
        std::size_t parent;
        std::string_view name;
        bool operator==(const Place& other) const { return parent == other.parent && name == other.name; }
    };
    struct PlaceHash {
        std::size_t operator()(const Place& place) const;
    };

    std::size_t child(std::size_t parent, std::string_view name);

    std::deque<Folder> folders; ///< never moved: the names in `places` point into it
    std::unordered_map<Place, std::size_t, PlaceHash> places;
    std::string lastPath; ///< files come folder by folder, so most are found without a search
    std::size_t lastIndex = 0;
};
