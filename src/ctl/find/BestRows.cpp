#include "ctl/find/BestRows.h"

#include <algorithm>
#include <tuple>
#include <utility>

bool BestRows::isBetter(const Entry& left, const Entry& right)
{
    return std::tie(right.value, left.volume, left.row.path) < std::tie(left.value, right.volume, right.row.path);
}

void BestRows::add(long long value, std::size_t volume, const Row& row)
{
    if (!wants(value))
        return;
    heap.push_back({ value, volume, row });
    std::push_heap(heap.begin(), heap.end(), isBetter);
    if (heap.size() <= limit)
        return;
    std::pop_heap(heap.begin(), heap.end(), isBetter);
    heap.pop_back();
}

std::vector<BestRows::Entry> BestRows::take()
{
    std::sort_heap(heap.begin(), heap.end(), isBetter);
    return std::exchange(heap, {});
}
