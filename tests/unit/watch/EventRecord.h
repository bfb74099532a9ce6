#pragma once

#include <sys/inotify.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

/// An event as the kernel writes it: the name is filled up with NULs to a multiple of the record's size. Nothing
/// readable follows it.
class EventRecord {
public:
    EventRecord(int watchDescriptor, const std::string& name)
        : record(1 + (name.length() + sizeof(inotify_event)) / sizeof(inotify_event))
    {
        inotify_event* event = record.data();
        event->wd = watchDescriptor;
        event->len = static_cast<uint32_t>((record.size() - 1) * sizeof(inotify_event));
        std::memcpy(record.data() + 1, name.data(), name.length());
    }

    inotify_event* get() { return record.data(); }

private:
    std::vector<inotify_event> record;
};
