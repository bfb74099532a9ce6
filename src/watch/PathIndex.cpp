#include "watch/PathIndex.h"

#include <algorithm>
#include <functional>

PathIndex::PathIndex(const std::map<int, WatchEntry>& indexedEntries)
    : entries(indexedEntries)
{
}

std::size_t PathIndex::slotOf(const std::string& path) const
{
    return std::hash<std::string>()(path) & (slots.size() - 1);
}

int PathIndex::first(const std::string& path) const
{
    if (path.empty()) {
        const auto entry
            = std::find_if(entries.begin(), entries.end(), [](const auto& each) { return each.second.path.empty(); });
        return entry != entries.end() ? entry->first : none;
    }
    int lowest = none;
    if (slots.empty())
        return lowest;
    // At least half of the slots are free, so this ends.
    for (std::size_t slot = slotOf(path); slots[slot] != none; slot = (slot + 1) & (slots.size() - 1)) {
        const int descriptor = slots[slot];
        if (descriptor != removed && (lowest == none || descriptor < lowest) && entries.at(descriptor).path == path)
            lowest = descriptor;
    }
    return lowest;
}

void PathIndex::add(int descriptor)
{
    if (entries.at(descriptor).path.empty())
        return;
    if ((occupied + 1) * 2 > slots.size())
        rebuild(); // with the new one
    else
        put(descriptor, entries.at(descriptor).path);
}

void PathIndex::put(int descriptor, const std::string& path)
{
    std::size_t slot = slotOf(path);
    while (slots[slot] != none)
        slot = (slot + 1) & (slots.size() - 1);
    slots[slot] = descriptor;
    ++occupied;
}

void PathIndex::rebuild()
{
    std::size_t size = 16;
    while (size < entries.size() * 3)
        size *= 2;
    std::vector<int>(size, none).swap(slots);
    occupied = 0;
    for (const auto& entry : entries) {
        if (!entry.second.path.empty())
            put(entry.first, entry.second.path);
    }
}

void PathIndex::remove(int descriptor)
{
    if (slots.empty() || entries.at(descriptor).path.empty())
        return;
    std::size_t slot = slotOf(entries.at(descriptor).path);
    while (slots[slot] != none && slots[slot] != descriptor)
        slot = (slot + 1) & (slots.size() - 1);
    if (slots[slot] == descriptor)
        slots[slot] = removed;
}

void PathIndex::clear()
{
    slots.clear();
    occupied = 0;
}
