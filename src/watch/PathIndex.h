#pragma once

#include "watch/WatchEntry.h"

#include <limits>
#include <map>
#include <string>
#include <vector>

/// Finds the watches of a path without a look at all the others. It is a hash table of watch descriptors, whose paths
/// stand in the registry's map alone: it takes some ten bytes a watch, where a second map would double the memory.
/// Empty paths are not in it: late events of ended watches can make very many of those, all of one hash.
/// Whoever calls it holds the lock that guards the map.
class PathIndex {
public:
    static constexpr int none = std::numeric_limits<int>::min(); ///< below every descriptor

    explicit PathIndex(const std::map<int, WatchEntry>& indexedEntries);

    /// The lowest descriptor whose folder has the path, or `none`.
    int first(const std::string& path) const;
    void add(int descriptor);    ///< has just been put into the map
    void remove(int descriptor); ///< is about to be taken out of the map
    void clear();

private:
    static constexpr int removed = none + 1;

    std::size_t slotOf(const std::string& path) const;
    void rebuild();
    void put(int descriptor, const std::string& path);

    const std::map<int, WatchEntry>& entries;
    std::vector<int> slots;   ///< descriptors, each at or after the slot of its path; a power of two of them
    std::size_t occupied = 0; ///< slots that are not free, those of removed descriptors included
};
