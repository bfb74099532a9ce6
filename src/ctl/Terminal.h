#pragma once

#include <string>

/// What standard output leads to. Colours, bars and redrawing are for a terminal only.
namespace terminal {

/// Whether standard output is a terminal.
bool isTerminal();
/// Whether to colour: on a terminal that can, unless NO_COLOR is set.
bool hasColours();
/// Columns; 80 where nothing is known.
int width();

enum class Colour { none, bold, dim, red, green, yellow, blue };
/// The text in that colour, or as it is where there are none.
std::string coloured(const std::string& text, Colour colour);

} // namespace terminal
