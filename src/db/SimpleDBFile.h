#pragma once

#include <string>

/// A file as the walk compares it: what the catalogue lists against what the directory lists.
class SimpleDBFile {
public:
    SimpleDBFile(std::string filePath, std::string fileName, int modified, int created); ///< times as below
    virtual ~SimpleDBFile();
    SimpleDBFile(const SimpleDBFile&) = default;
    SimpleDBFile& operator=(const SimpleDBFile&) = default;

    std::string getPath() const { return path; } ///< volume-relative, the name included
    std::string getName() const { return name; }
    int getModifiedTime() const { return modifiedTime; } ///< seconds since the epoch
    int getCreatedTime() const { return createdTime; }   ///< seconds since the epoch

    /// The strings become empty, the times 0.
    void reset();

    /// Compares name and path only.
    bool operator==(const SimpleDBFile& other) const;
    /// Path and name both not greater: neither strict nor lexicographic. The walk sorts by name instead.
    bool operator<(const SimpleDBFile& other) const;

private:
    std::string path;
    std::string name;
    int modifiedTime;
    int createdTime;
};
