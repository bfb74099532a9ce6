#pragma once

#include <string>

/// The URI by which SQLite opens the catalogue at an absolute path of any bytes for reading only. The index of the log
/// is opened so, too, which readOnlyFiles() cannot see to.
std::string catalogueUri(const std::string& path);
