#pragma once

#include <string>

/// Touches ".tickle" in the folder, which makes an event on the folder's watch. The file stays, because readers of the
/// volume rely on it. Nothing happens when the folder is gone or cannot be written. Runs a shell command, which takes
/// time, so the caller holds no lock. Throws std::bad_alloc.
void touchTickle(const std::string& folder);
