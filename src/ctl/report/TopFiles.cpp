#include "ctl/report/TopFiles.h"

#include <algorithm>

bool TopFiles::isBefore(const Entry& left, const Entry& right)
{
    return left.key != right.key ? left.key > right.key : left.number < right.number;
}

void TopFiles::offer(long long key, std::string_view path, long long size, long long time)
{
    ++offered;
    if (heap.size() == limit) {
        if (limit == 0 || key <= heap.front().key)
            return;
        std::pop_heap(heap.begin(), heap.end(), isBefore);
        heap.pop_back();
    }
    heap.push_back({ key, offered, { std::string(path), size, time } });
    std::push_heap(heap.begin(), heap.end(), isBefore);
}

std::vector<ListedFile> TopFiles::sorted() const
{
    std::vector<Entry> entries = heap;
    std::sort(entries.begin(), entries.end(), isBefore);
    std::vector<ListedFile> files;
    files.reserve(entries.size());
    for (Entry& entry : entries)
        files.push_back(std::move(entry.file));
    return files;
}
