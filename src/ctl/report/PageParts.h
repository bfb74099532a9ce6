#pragma once

#include <string_view>

// The files that the page is made of, as they were when this program was built.

std::string_view pageTemplate(); ///< report.html, with a mark for each of the others
std::string_view pageStyle();
std::string_view chartLibrary(); ///< with its licence in front
std::string_view pageScript();
