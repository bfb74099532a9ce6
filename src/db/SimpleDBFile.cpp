#include "db/SimpleDBFile.h"

#include <utility>

SimpleDBFile::SimpleDBFile(std::string filePath, std::string fileName, int modified, int created)
    : path(std::move(filePath))
    , name(std::move(fileName))
    , modifiedTime(modified)
    , createdTime(created)
{
}

SimpleDBFile::~SimpleDBFile() = default;

void SimpleDBFile::reset()
{
    path.clear();
    name.clear();
    modifiedTime = 0;
    createdTime = 0;
}

bool SimpleDBFile::operator==(const SimpleDBFile& other) const { return name == other.name && path == other.path; }

// Both comparisons on purpose: a record whose path sorts first but whose name sorts later is not "less".
bool SimpleDBFile::operator<(const SimpleDBFile& other) const { return path <= other.path && name <= other.name; }
