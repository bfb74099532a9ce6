#pragma once

#include <sys/stat.h>

#include <string>

// A user of a volume can put a link in place of any folder or file of it, and the daemon, as root, would follow it
// anywhere. What the administrator has configured may be a link and lie behind others: `configuredPath` is such a
// path, at or above `path`. Below it no link is followed.

/// Whether one of the folders between the two paths is a link. Neither path's own last element counts. When true, the
/// folder that the catalogue and the watch know by `path` is no longer there.
bool isBehindLink(const std::string& path, const std::string& configuredPath);

/// Opens a folder for reading: the descriptor, or -1 with errno set when there is none or a link is in the way. The
/// whole path is checked as it is opened, whatever becomes of the folders meanwhile.
int openFolder(const std::string& path, const std::string& configuredPath);

/// Both give the entry's status; false for what is gone, of the other kind, a link, or behind one.
bool findFile(const std::string& path, const std::string& configuredPath, struct stat64& status);
bool findFolder(const std::string& path, const std::string& configuredPath, struct stat64& status);
