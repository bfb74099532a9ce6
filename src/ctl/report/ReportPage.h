#pragma once

#include <string>
#include <string_view>

/// JSON that says the same without any "<": nothing in it can end, or begin, an element of the page around it.
std::string withoutTags(std::string_view json);

/// The whole HTML page with this data. It needs no other file.
std::string reportPage(std::string_view json);
