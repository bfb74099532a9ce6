#pragma once

#include <string_view>

/// Whether the path lies below the folder. Both are without a trailing slash: the root of all is the empty text.
inline bool liesBelow(std::string_view path, std::string_view folder)
{
    return path.size() > folder.size() && path[folder.size()] == '/' && path.substr(0, folder.size()) == folder;
}
