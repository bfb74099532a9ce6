#pragma once

#include <string>

// What the catalogue derives from a path alone. VolumeDBManager has two more such functions.

/// The value of the column is_hidden: 1 when an element of the path begins with a dot, else 0.
int isHiddenPath(const std::string& path);

/// What stands before the last slash; the path itself when it has no slash.
std::string folderPathOf(const std::string& path);
