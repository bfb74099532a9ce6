#include "ctl/report/FolderSelection.h"

#include "ctl/report/FolderTree.h"

#include <algorithm>
#include <numeric>

namespace {

struct Subtree {
    CategoryTotals content;
    long long folders = 1;
};

/// What is in and below each folder. Children stand behind their parents, so one pass from the end will do.
std::vector<Subtree> subtrees(const FolderTree& tree)
{
    const auto& folders = tree.all();
    std::vector<Subtree> sums(folders.size());
    for (std::size_t i = folders.size(); i-- > 0;) {
        sums[i].content.add(folders[i].direct);
        if (i > 0) {
            sums[folders[i].parent].content.add(sums[i].content);
            sums[folders[i].parent].folders += sums[i].folders;
        }
    }
    return sums;
}

/// The indexes of the largest folders, in the tree's order. A folder is no larger than its parent, and stands behind it
/// when they are equal: so each has its parent in the list.
std::vector<std::size_t> largest(const std::vector<Subtree>& sums, std::size_t limit)
{
    std::vector<std::size_t> order(sums.size());
    std::iota(order.begin(), order.end(), std::size_t { 0 });
    if (limit < order.size()) {
        const auto isLarger = [&sums](std::size_t left, std::size_t right) {
            const long long leftBytes = sums[left].content.allBytes();
            const long long rightBytes = sums[right].content.allBytes();
            return leftBytes != rightBytes ? leftBytes > rightBytes : left < right;
        };
        const auto end = order.begin() + static_cast<std::ptrdiff_t>(limit);
        std::nth_element(order.begin(), end, order.end(), isLarger);
        order.erase(end, order.end());
        std::sort(order.begin(), order.end());
    }
    return order;
}

int mainCategory(const CategoryTotals& content)
{
    const auto most = std::max_element(content.bytes.begin(), content.bytes.end());
    return *most == 0 ? 0 : static_cast<int>(most - content.bytes.begin()) + 1;
}

} // namespace

std::vector<ShownFolder> selectLargest(const FolderTree& tree, std::size_t limit)
{
    constexpr std::size_t notShown = static_cast<std::size_t>(-1);
    const auto& folders = tree.all();
    const std::vector<Subtree> sums = subtrees(tree);
    std::vector<std::size_t> places(folders.size(), notShown);
    std::vector<ShownFolder> shown;
    for (const std::size_t i : largest(sums, std::max<std::size_t>(limit, 1))) {
        const FolderTree::Folder& folder = folders[i];
        places[i] = shown.size();
        shown.push_back({ i == 0 ? 0 : places[folder.parent], folder.name, mainCategory(sums[i].content),
            folder.direct.allFiles(), folder.direct.allBytes(), 0, 0, 0 });
    }
    for (std::size_t i = 1; i < folders.size(); ++i) {
        const std::size_t parent = places[folders[i].parent];
        if (places[i] != notShown || parent == notShown)
            continue;
        shown[parent].otherFolders += sums[i].folders;
        shown[parent].otherFiles += sums[i].content.allFiles();
        shown[parent].otherBytes = addBytes(shown[parent].otherBytes, sums[i].content.allBytes());
    }
    return shown;
}
