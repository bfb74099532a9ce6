#pragma once

#include <sys/stat.h>

#include <string>

// A user of a volume can put a link in place of any of its folders and files. The daemon runs as root and would follow
// such a link anywhere. A path that the administrator has configured may be a link or lie behind links. In all
// functions `configuredPath` is such a path, equal to `path` or above it, and below it no link is followed. Any thread.

/// Whether one of the folders between the two paths is a link. The last element of either path does not count. When
/// true, the folder that the catalogue and the watch know by `path` is no longer there.
bool isBehindLink(const std::string& path, const std::string& configuredPath);

/// Opens a folder for reading. Returns the descriptor, or -1 with errno set when there is no folder or a link is in the
/// way. Opening checks the whole path, so a folder that is exchanged meanwhile is not followed either.
int openFolder(const std::string& path, const std::string& configuredPath);

// Both fill in the status. False when the entry is gone, not of that kind, a link, or behind a link.

/// Everything but a folder and a link counts as a file.
bool findFile(const std::string& path, const std::string& configuredPath, struct stat64& status);
bool findFolder(const std::string& path, const std::string& configuredPath, struct stat64& status);
