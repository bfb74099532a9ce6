#pragma once

#include <dirent.h>

#include <string>

/// True exactly for "." and "..".
bool IsDotOrDotDot(const char* name);

/// Whether a link stands between a path and the configured one above it, both left out: the folder that was walked, or
/// is watched, under this path is elsewhere now.
bool isBehindLink(const std::string& path, const std::string& configuredPath);

/// The entries of one folder on disk, without "." and "..".
class FolderReader {
public:
    /// `configuredPath` is the path or one above it; it may be a link and lie behind others. Below it none is followed,
    /// whatever becomes of the folders meanwhile (on kernels before 5.6: none in the last element).
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
