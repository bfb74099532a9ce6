#pragma once

#include <dirent.h>

#include <string>

/// True exactly for "." and "..".
bool IsDotOrDotDot(const char* name);

/// The entries of one folder on disk, without "." and "..".
class FolderReader {
public:
    /// Opens the folder at `path`. `configuredPath` is that path or one above it; below it no link is followed, see
    /// openFolder().
    FolderReader(const std::string& path, const std::string& configuredPath);
    ~FolderReader();
    FolderReader(const FolderReader&) = delete;
    FolderReader& operator=(const FolderReader&) = delete;

    bool isOpen() const { return directory != nullptr; }
    /// The open folder, to look at its entries with. Valid as long as the object, and only while it is open.
    int descriptor() const { return dirfd(directory); }
    /// The next entry, valid until the next call; nullptr at the end and after a failure. Only while isOpen().
    const dirent* next();
    /// Whether reading failed before the end of the folder. Entries that were not listed may exist then.
    bool hasFailed() const { return failed; }

private:
    DIR* directory;
    bool failed = false;
};
