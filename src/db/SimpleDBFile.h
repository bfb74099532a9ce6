#pragma once

#include <string>

/// A file of the catalogue in the short form that a walk compares with the disk.
class SimpleDBFile {
public:
    SimpleDBFile(std::string filePath, std::string fileName, int modified, int created); ///< times: seconds
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
    /// Whether path and name are both less or equal: neither a strict nor a lexicographic order. The walk sorts by name
    /// instead.
    bool operator<(const SimpleDBFile& other) const;

private:
    std::string path;
    std::string name;
    int modifiedTime;
    int createdTime;
};
