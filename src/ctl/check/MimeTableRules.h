#pragma once

#include <string>

class FindingsAbout;

/// Warns of a MIME table that is missing, and of entries in it without effect.
void checkMimeTable(const FindingsAbout& found, const std::string& path);
