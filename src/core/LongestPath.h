#pragma once

#include <cstddef>
#include <string_view>

/// How many bytes the path of a catalogue may have, links resolved: SQLite takes 512 and adds "-journal" to it.
constexpr std::size_t longestCataloguePath = 512 - std::string_view("-journal").length();
