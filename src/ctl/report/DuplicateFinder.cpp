#include "ctl/report/DuplicateFinder.h"

#include "ctl/Bytes.h"

#include <algorithm>
#include <functional>
#include <tuple>

long long DuplicateFinder::Group::wasted() const
{
    long long product = 0;
    return __builtin_mul_overflow(size, files - 1, &product) ? __LONG_LONG_MAX__ : product;
}

void DuplicateFinder::add(long long id, std::string_view name, long long size)
{
    if (size > 0)
        entries.push_back({ std::hash<std::string_view>()(name), size, id });
}

DuplicateFinder::Result DuplicateFinder::find(std::size_t groups, std::size_t ids)
{
    std::sort(entries.begin(), entries.end(), [](const Entry& left, const Entry& right) {
        return std::tie(left.hash, left.size, left.id) < std::tie(right.hash, right.size, right.id);
    });
    const auto isBefore = [](const Group& left, const Group& right) {
        return left.wasted() != right.wasted() ? left.wasted() > right.wasted() : left.ids < right.ids;
    };
    Result result;
    for (auto first = entries.begin(); first != entries.end();) {
        const auto last = std::find_if(first, entries.end(),
            [&](const Entry& entry) { return entry.hash != first->hash || entry.size != first->size; });
        Group group { first->size, last - first, {} };
        if (group.files > 1) {
            ++result.groups;
            result.files += group.files;
            result.wasted = addBytes(result.wasted, group.wasted());
            for (auto entry = first; entry != last && group.ids.size() < ids; ++entry)
                group.ids.push_back(entry->id);
            // A heap whose front is the least: it goes when there is one too many.
            result.largest.push_back(std::move(group));
            std::push_heap(result.largest.begin(), result.largest.end(), isBefore);
            if (result.largest.size() > groups) {
                std::pop_heap(result.largest.begin(), result.largest.end(), isBefore);
                result.largest.pop_back();
            }
        }
        first = last;
    }
    std::sort_heap(result.largest.begin(), result.largest.end(), isBefore);
    return result;
}
