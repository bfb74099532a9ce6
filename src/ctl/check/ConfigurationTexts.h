#pragma once

#include <string>

// What a check says of names and values in a configuration.

/// The text in quotation marks.
std::string quoted(const std::string& text);

/// The text without blanks around it, cut short when it is long.
std::string excerpt(const std::string& text);

/// Whether the one is the other with a typing error or two, or in other case.
bool isResembling(const std::string& one, const std::string& other);

/// Blanks and line ends, as XML has them.
constexpr const char* blanks = " \t\r\n";
