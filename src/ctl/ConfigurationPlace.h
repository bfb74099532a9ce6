#pragma once

#include <string>

/// Where the XML library looks for the configuration of this path: at the path that an address stands for, and, if
/// nothing is there, at that with %20 and the like replaced.
std::string configurationPlace(const std::string& path);

/// Whether reading would go to somewhere else than a file, or might not end. The XML library takes '-' for standard
/// input and fetches addresses.
bool isNoFile(const std::string& place);

// Why such a configuration is left alone, and what to do.
constexpr const char* noFileReason
    = "This is no regular file: reading it might never end, and takes from a pipe what is meant for the daemon";
constexpr const char* noFileRemedy = "Write the configuration into a file";
