#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <string>
#include <string_view>

// Names are bytes. These make them fit for people, for JSON, and for columns.

/// The text with control characters, and bytes that are no UTF-8, as \n, \t, \x1b, \xff: a file's name is not to move
/// the cursor. A backslash stays as it is.
std::string visible(std::string_view bytes);

/// How many bytes the UTF-8 character at the beginning of the bytes has; 0 when there is none. At least one byte.
std::size_t characterLength(std::string_view bytes);
bool isUtf8(std::string_view bytes);

/// Sets `object[key]` to the text. When the bytes are no UTF-8, the value has U+FFFD in their place, and
/// `object[key + "_hex"]` all bytes in hexadecimal.
void setBytes(nlohmann::ordered_json& object, const std::string& key, std::string_view bytes);

/// The object's JSON, on one line unless `indent` says otherwise. Control characters of U+007F and above are written
/// as \u007f: the format allows them as they are, but a terminal obeys them.
std::string jsonText(const nlohmann::ordered_json& object, int indent = -1);

/// "1.5 GiB", "731 bytes".
std::string humanBytes(long long bytes);
/// "1,234,567".
std::string withSeparators(long long number);
/// "2026-11-22 14:03:07", local time; the number where the year has none, which only another program can have written.
std::string localTime(long long seconds);
/// "video", "audio", "image", "other" of a category's number; "other" of any further number.
const char* categoryName(long long category);
