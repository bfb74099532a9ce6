#pragma once

#include <dirent.h>

#include <string>

/// True exactly for "." and "..".
bool IsDotOrDotDot(const char* name);

/// The entries of one folder on disk, without "." and "..".
class FolderReader {
public:
    /// `configuredPath` is the path or one above it; below it no link is followed, see openFolder().
    FolderReader(const std::string& path, const std::string& configuredPath);
    ~FolderReader();
    FolderReader(const FolderReader&) = delete;
    FolderReader& operator=(const FolderReader&) = delete;

    bool isOpen() const { return directory != nullptr; }
    /// The next entry, valid until the next call; nullptr at the end and after a failure.
    const dirent* next();
    /// Whether reading ended before the end of the folder: what was not listed may exist all the same.
    bool hasFailed() const { return failed; }

private:
    DIR* directory;
    bool failed = false;
};
