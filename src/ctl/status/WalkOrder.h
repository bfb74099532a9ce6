#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

/// The order in which a walk comes to the folders below its start: level by level, and within a folder as the system
/// lists it. Tells which folders come before a certain one.
class WalkOrder {
public:
    /// Lists the folders above `folder`, a path of the volume with this root.
    WalkOrder(const std::string& root, const std::string& folder);

    /// `path`: of the volume, below the start that the folder lies below. What is not on the disk any more comes last.
    bool isBefore(std::string_view path) const;

private:
    using Listing = std::map<std::string, std::size_t, std::less<>>; ///< the place of each name
    static Listing listingOf(const std::string& folder);
    static std::size_t placeOf(std::string_view name, const Listing& listing);

    const std::string reference;
    const std::ptrdiff_t depth;
    std::map<std::size_t, Listing> listings; ///< of the folders above, by where in `reference` the slash behind them is
};
