#pragma once

#include <string>

/// Writes the bytes to the descriptor and down to the disk; false, with errno set, when any of them may not have
/// arrived.
bool writeDurably(int descriptor, const std::string& bytes);
