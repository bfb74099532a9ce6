#include "db/DBFile.h"

DBFile::~DBFile() = default;

void DBFile::reset()
{
    file_id = -1;
    folder_id = -1;
    category = -1;
    path.clear();
    name.clear();
    size = 0;
    created_time = 0;
    last_updated_time = 0;
    modified_time = 0;
    // is_deleted stays as it was, on purpose: programs that reuse records rely on it.
}

std::string DBFile::toString() const { return path + " | " + name; }

bool DBFile::operator==(const DBFile& other) const { return name == other.name && path == other.path; }
