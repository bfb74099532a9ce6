#include "ctl/status/WalkOrder.h"

#include <algorithm>
#include <filesystem>

namespace {

std::ptrdiff_t depthOf(std::string_view path) { return std::count(path.begin(), path.end(), '/'); }

/// Between this slash and the next one.
std::string_view nameAt(std::string_view path, std::size_t slash)
{
    return path.substr(slash + 1, path.find('/', slash + 1) - slash - 1);
}

} // namespace

WalkOrder::WalkOrder(const std::string& root, const std::string& folder)
    : reference(folder)
    , depth(depthOf(folder))
{
    for (std::size_t slash = folder.find('/'); slash != std::string::npos; slash = folder.find('/', slash + 1))
        listings[slash] = listingOf(root + folder.substr(0, slash));
}

bool WalkOrder::isBefore(std::string_view path) const
{
    const std::ptrdiff_t pathDepth = depthOf(path);
    if (pathDepth != depth)
        return pathDepth < depth;
    for (const auto& [slash, listing] :
        listings) { // as long as the names are alike, the slashes are at the same places
        const std::string_view name = nameAt(path, slash);
        if (name != nameAt(reference, slash))
            return placeOf(name, listing) < placeOf(nameAt(reference, slash), listing);
    }
    return false;
}

WalkOrder::Listing WalkOrder::listingOf(const std::string& folder)
{
    Listing listing;
    std::error_code end;
    for (std::filesystem::directory_iterator entry(folder + "/", end), last; !end && entry != last;
         entry.increment(end))
        listing.emplace(entry->path().filename().string(), listing.size());
    return listing;
}

std::size_t WalkOrder::placeOf(std::string_view name, const Listing& listing)
{
    const auto found = listing.find(name);
    return found != listing.end() ? found->second : listing.size();
}
