#pragma once

#include "ctl/changes/VolumePosition.h"

#include <map>
#include <string>
#include <string_view>

/// Where the reading of the changes of several volumes has come to, by volume name.
///
/// As text it is one word of the characters a-z, 0-9, '.', ':' and '-', which fits into a shell command and a file. It
/// carries a checksum: a text that was cut or changed is refused.
struct ChangeCursor {
    std::map<std::string, VolumePosition> positions;

    std::string text() const;

    /// The cursor of a text; blanks and line ends around it do not count, and nothing but those is a cursor without
    /// positions. Throws a Problem about `origin` (a file or an option) when it is no cursor.
    static ChangeCursor parse(std::string_view text, const std::string& origin);
};
