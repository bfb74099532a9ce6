#pragma once

#include <string>

/// A new folder, removed with everything in it at the end of the scope.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// Absolute, without a trailing slash.
    const std::string& path() const { return folder; }
    /// path() + "/" + below
    std::string path(const std::string& below) const { return folder + "/" + below; }

    /// Makes the folder and those above it; its absolute path.
    std::string makeFolder(const std::string& below) const;
    /// Writes the file, and makes the folders above it; its absolute path.
    std::string writeFile(const std::string& below, const std::string& content = "") const;
    /// The content of the file; fails the test when it cannot be read.
    std::string readFile(const std::string& below) const;
    /// Removes the file, or the folder with all its content.
    void remove(const std::string& below) const;
    bool exists(const std::string& below) const;

private:
    std::string folder;
};
