#pragma once

#include "ctl/Categories.h"

#include <map>
#include <string>

/// Files by the local month of one of their times.
class MonthlyTotals {
public:
    void add(long long seconds, std::size_t category, long long size);

    /// Only the months that have files, by "2026-11".
    std::map<std::string, CategoryTotals> byName() const;

private:
    std::map<int, CategoryTotals> months; ///< by months since 1900
};
