#pragma once

#include <string>

/// Until the end of the scope the folder of the daemon's MIME table is one of the calling thread's own, and of the
/// threads that it starts; the machine's stays as it is. Works where mounting is permitted, as under ctest.
class PrivateMimeTable {
public:
    PrivateMimeTable(); ///< no table at all
    explicit PrivateMimeTable(const std::string& content);
    ~PrivateMimeTable();
    PrivateMimeTable(const PrivateMimeTable&) = delete;
    PrivateMimeTable& operator=(const PrivateMimeTable&) = delete;

    void replace(const std::string& content) const;
};
