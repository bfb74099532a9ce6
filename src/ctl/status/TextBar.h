#pragma once

#include <string>
#include <string_view>

/// "[#####     ]": `part`, from 0 to 1, of so many columns between the brackets.
std::string bar(double part, int columns);
/// The bar with a blank behind it on a terminal, else nothing.
std::string terminalBar(double part, int columns);

/// "42 s", "5 min 10 s", "3 h 20 min", "12 d 4 h".
std::string duration(long long seconds);

/// The line cut to so many columns. Colours take none and are ended behind the cut. Every UTF-8 character counts as
/// one.
std::string cutToColumns(std::string_view line, int columns);
