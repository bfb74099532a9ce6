#pragma once

#include <string>

/// One row of the catalogue's table Files. Times are seconds since the epoch.
class DBFile {
public:
    virtual ~DBFile();
    DBFile() = default;
    DBFile(const DBFile&) = default;
    DBFile& operator=(const DBFile&) = default;

    int getFile_id() const { return file_id; }
    int getFolder_id() const { return folder_id; }
    std::string getName() const { return name; }
    std::string getPath() const { return path; } ///< volume-relative, the name included
    int getCategory() const { return category; }
    long long getSize() const { return size; } ///< bytes
    int getModified_time() const { return modified_time; }
    int getLast_updated_time() const { return last_updated_time; }
    int getCreated_time() const { return created_time; }
    bool getIs_deleted() const { return is_deleted; }

    void setFile_id(int id) { file_id = id; }
    void setFolder_id(int id) { folder_id = id; }
    void setName(const std::string& newName) { name = newName; }
    void setPath(const std::string& newPath) { path = newPath; }
    void setCategory(int newCategory) { category = newCategory; }
    void setSize(long long bytes) { size = bytes; }
    void setModified_time(int seconds) { modified_time = seconds; }
    void setLast_updated_time(int seconds) { last_updated_time = seconds; }
    void setCreated_time(int seconds) { created_time = seconds; }
    void setIs_deleted(bool deleted) { is_deleted = deleted; }

    /// Ids and category become -1, the strings empty, size and times 0. `is_deleted` stays as it was: code that reuses
    /// the record of a deleted row sets it.
    void reset();

    /// "path | name"
    std::string toString() const;

    /// Compares name and path only.
    bool operator==(const DBFile& other) const;

private:
    int file_id = -1;
    int folder_id = -1;
    std::string name;
    std::string path;
    int category = -1;
    long long size = 0;
    int modified_time = 0;
    int last_updated_time = 0;
    int created_time = 0;
    bool is_deleted = false;
};
