#pragma once

#include <string>

/// One row of the catalogue's table Folders. Times are seconds since the epoch.
class DBFolder {
public:
    virtual ~DBFolder();
    DBFolder() = default;
    DBFolder(const DBFolder&) = default;
    DBFolder& operator=(const DBFolder&) = default;

    int getFolder_id() const { return folder_id; }
    int getParent_id() const { return parent_id; } ///< -1: the volume's root or a crawl path
    std::string getPath() const { return path; }   ///< volume-relative
    std::string getName() const { return name; }
    bool getIs_deleted() const { return is_deleted; }
    int getLast_updated_time() const { return last_updated_time; }
    int getCreated_time() const { return created_time; }
    int getModified_time() const { return modified_time; }

    void setFolder_id(int id) { folder_id = id; }
    void setParent_id(int id) { parent_id = id; }
    void setPath(const std::string& newPath) { path = newPath; }
    void setName(const std::string& newName) { name = newName; }
    void setIs_deleted(bool deleted) { is_deleted = deleted; }
    void setLast_updated_time(int seconds) { last_updated_time = seconds; }
    void setCreated_time(int seconds) { created_time = seconds; }
    void setModified_time(int seconds) { modified_time = seconds; }

    /// Everything becomes 0, empty or false. Unlike DBFile::reset(), that includes the ids and `is_deleted`.
    void resetFolder();

    /// The path.
    std::string toString() const;

    /// Compares the path only.
    bool operator==(const DBFolder& other) const;
    /// Whether the path is less or equal: not a strict order, since equal paths are each "less" than the other. It
    /// serves std::list::sort, but not std::sort.
    bool operator<(const DBFolder& other) const;

private:
    int folder_id = 0;
    int parent_id = 0;
    std::string path;
    std::string name;
    bool is_deleted = false;
    int last_updated_time = 0;
    int created_time = 0;
    int modified_time = 0;
};
