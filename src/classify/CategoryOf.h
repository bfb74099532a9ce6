#pragma once

#include <string>

/// The media category of a file: that of what follows the last dot of its name, even when nothing stands before it.
/// "Other" for a name without a dot and for one that ends with it. Safe from any thread.
int categoryOf(const std::string& fileName);
