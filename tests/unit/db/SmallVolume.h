#pragma once

#include <string>

/// A file system of a given size, in memory, mounted on a folder for the length of a scope.
class SmallVolume {
public:
    SmallVolume(const std::string& folder, int kibibytes);
    ~SmallVolume();
    SmallVolume(const SmallVolume&) = delete;
    SmallVolume& operator=(const SmallVolume&) = delete;

    void makeReadOnly() const;

private:
    std::string mountPoint;
};
