#pragma once

#include "ctl/Bytes.h"

#include <array>
#include <cstddef>

constexpr std::size_t categoryCount = 4;

/// The place of a category's number in the arrays below; that of "other" for any further number.
inline std::size_t categoryIndex(long long category)
{
    return category >= 1 && category < static_cast<long long>(categoryCount) ? static_cast<std::size_t>(category - 1)
                                                                             : categoryCount - 1;
}

/// Files and their bytes by category: video, audio, image, other.
struct CategoryTotals {
    std::array<long long, categoryCount> files = {};
    std::array<long long, categoryCount> bytes = {};

    void add(std::size_t category, long long size)
    {
        ++files[category];
        bytes[category] = addBytes(bytes[category], size);
    }

    void add(const CategoryTotals& more)
    {
        for (std::size_t i = 0; i < categoryCount; ++i) {
            files[i] += more.files[i];
            bytes[i] = addBytes(bytes[i], more.bytes[i]);
        }
    }

    long long allFiles() const { return files[0] + files[1] + files[2] + files[3]; }
    long long allBytes() const { return addBytes(addBytes(bytes[0], bytes[1]), addBytes(bytes[2], bytes[3])); }
};
