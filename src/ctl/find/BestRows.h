#pragma once

#include "ctl/find/RowSearch.h"

#include <cstddef>
#include <string>
#include <vector>

/// The rows with the greatest values, of all that it is given; it keeps no more than it has to return.
class BestRows {
public:
    /// A row with its value and the volume that it is in, by its place in a list of the caller's.
    struct Entry {
        long long value;
        std::size_t volume;
        Row row;
    };

    explicit BestRows(std::size_t most)
        : limit(most)
    {
    }

    /// Whether add() would keep a row of this value now.
    bool wants(long long value) const { return heap.size() < limit || value >= heap.front().value; }
    void add(long long value, std::size_t volume, const Row& row);

    /// The greatest first; of equal ones by volume and path. Leaves none.
    std::vector<Entry> take();

private:
    static bool isBetter(const Entry& left, const Entry& right);

    const std::size_t limit;
    std::vector<Entry> heap; ///< the least one in front
};
