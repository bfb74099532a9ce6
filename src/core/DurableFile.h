#pragma once

#include <string>

/// Writes the bytes to the descriptor and syncs them to the disk. False, with errno set, when some of them may be
/// missing there.
bool writeDurably(int descriptor, const std::string& bytes);
