#pragma once

#include <string>

// What the catalogue takes from a path by itself. VolumeDBManager offers two more such functions.

/// What the column is_hidden gets: 1 when an element of the path begins with a dot, else 0.
int isHiddenPath(const std::string& path);

/// All before the last slash; the path itself when it has none.
std::string folderPathOf(const std::string& path);
