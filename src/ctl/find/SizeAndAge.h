#pragma once

#include <string>

// Sizes and ages as users write them. Both throw a Problem about `option` when the text is none.

/// Bytes of "2000", "10M", "1.5G", "10MiB" (of 1024), "10MB" (of 1000). K, M, G, T and P, in either case.
long long parseSize(const std::string& option, const std::string& text);

/// Seconds of "30s", "90m", "3h", "2d", "1.5w". A number without a unit is none: it could mean days as well as seconds.
long long parseAge(const std::string& option, const std::string& text);
