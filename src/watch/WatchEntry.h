#pragma once

#include <string>

/// The folder that a watch descriptor stands for. Both fields are empty for a descriptor that nobody has added.
struct WatchEntry {
    std::string path;   ///< absolute
    std::string volume; ///< the volume's name
};
