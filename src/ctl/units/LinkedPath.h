#pragma once

#include <string>

/// Where an absolute path leads: without links, dots and doubled slashes, and without a trailing slash. Also when what
/// it leads to is not there yet, as a disk is not at the boot. A path with too many links is returned as it is.
std::string linkedPath(const std::string& path);
