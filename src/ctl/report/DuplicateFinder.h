#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

/// Finds files that have both name and size in common. It keeps 24 bytes of each file, and no name.
class DuplicateFinder {
public:
    struct Group {
        long long size;             ///< of each
        long long files;            ///< how many there are, at least two
        std::vector<long long> ids; ///< of the first of them
        long long wasted() const;   ///< the bytes of all but one
    };
    struct Result {
        long long groups = 0; ///< also those that are not in the list
        long long files = 0;
        long long wasted = 0;
        std::vector<Group> largest; ///< by wasted bytes, the most first
    };

    /// Room for so many files at once: growing bit by bit would take twice the memory for a moment.
    void reserve(std::size_t files) { entries.reserve(files); }
    /// Empty files are left out: they waste nothing.
    void add(long long id, std::string_view name, long long size);
    /// Lists at most `groups` groups and `ids` files of each, the lowest first. Call once, after all files.
    Result find(std::size_t groups, std::size_t ids);

private:
    struct Entry {
        std::uint64_t hash; ///< of the name
        long long size;
        long long id;
    };

    std::vector<Entry> entries;
};
