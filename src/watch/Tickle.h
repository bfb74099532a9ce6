#pragma once

#include <string>

/// Touches ".tickle" in the folder, which makes an event on its watch. The file stays: readers of the volume rely on
/// it. A folder that is gone or cannot be written is left alone. Takes the time of a shell command; no lock may be
/// held. Throws std::bad_alloc.
void touchTickle(const std::string& folder);
