#pragma once

#include "watch/WatchEntry.h"

#include <limits>
#include <map>
#include <string>
#include <vector>

/// Finds the watches of a path without looking at all the others. It is a hash table of watch descriptors; the paths
/// stand in the registry's map alone. So it takes some ten bytes per watch, where a second map would double the memory.
/// Empty paths are not in the table, because late events of ended watches can make very many of them, all of one hash.
/// The caller holds the lock that guards the map.
class PathIndex {
public:
    static constexpr int none = std::numeric_limits<int>::min(); ///< below every descriptor

    explicit PathIndex(const std::map<int, WatchEntry>& indexedEntries);

    /// The lowest descriptor whose folder has the path, or `none`. An empty path costs a search of the whole map.
    int first(const std::string& path) const;
    void add(int descriptor);    ///< called after the descriptor was put into the map; throws std::bad_alloc
    void remove(int descriptor); ///< called before the descriptor is taken out of the map
    void clear();                ///< called before the map is cleared

private:
    static constexpr int removed = none + 1; ///< marks the slot of a removed descriptor: a search goes on past it

    std::size_t slotOf(const std::string& path) const;
    void rebuild();
    void put(int descriptor, const std::string& path);

    const std::map<int, WatchEntry>& entries;
    std::vector<int> slots;   ///< descriptors, each at or after the slot of its path; their number is a power of two
    std::size_t occupied = 0; ///< slots that are not free, those of removed descriptors included
};
