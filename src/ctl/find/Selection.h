#pragma once

#include "ctl/find/NamePattern.h"

#include <optional>
#include <vector>

/// Which rows of the catalogues a user asks for. Everything that is not set lets every row pass.
struct Selection {
    std::optional<NamePattern> pattern;
    bool files = true;
    bool folders = true;
    std::vector<long long> categories;     ///< of files, as in the catalogue
    std::optional<long long> largerThan;   ///< bytes; files of this size do not pass
    std::optional<long long> changedSince; ///< seconds since 1970; of a deleted row: since when it is deleted
    bool deleted = false;                  ///< the deleted rows, and only those
};
