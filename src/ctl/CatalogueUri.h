#pragma once

#include <string>

/// The URI by which SQLite opens the catalogue at an absolute path of any bytes so that its writer notices nothing.
///
/// The file is opened for reading only. So is the index of its log, which SQLite otherwise opens for writing when it
/// may: the daemon would take the closing of that for a change in the folder.
std::string catalogueUri(const std::string& path);
