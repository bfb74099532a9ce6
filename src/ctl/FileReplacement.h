#pragma once

#include <sys/types.h>

#include <string>

/// The path up to its last slash, that included; "." when it has none.
std::string folderOf(const std::string& path);

/// Puts the content in the place of the file at `path`, or of nothing, whole or not at all: it is written beside it
/// with this mode, synced and renamed. False with errno set when that fails; nothing is left beside the file then.
bool replaceFile(const std::string& path, const std::string& content, mode_t mode);

/// The mode of the regular file at the path, else what the process gives a new file.
mode_t modeInPlaceOf(const std::string& path);
