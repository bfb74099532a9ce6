#pragma once

#include <cstddef>
#include <string>
#include <vector>

class FolderTree;

/// A folder that a page shows.
struct ShownFolder {
    std::size_t parent; ///< index in the selection, less than the folder's own; the root's is 0
    std::string name;
    int category;    ///< that with the most bytes in the folder and all below it, 1 to 4; 0 when there are none
    long long files; ///< directly in the folder
    long long bytes;
    // What is below the folder in subfolders that are not shown themselves.
    long long otherFolders;
    long long otherFiles;
    long long otherBytes;
};

/// The largest `limit` folders by what is in and below them, at least the root, each behind its parent. Nothing is
/// lost: what is in the others counts with the last folder above them that is shown.
std::vector<ShownFolder> selectLargest(const FolderTree& tree, std::size_t limit);
