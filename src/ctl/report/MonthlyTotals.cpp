#include "ctl/report/MonthlyTotals.h"

#include <fmt/format.h>

#include <ctime>

void MonthlyTotals::add(long long seconds, std::size_t category, long long size)
{
    const std::time_t time = seconds;
    std::tm parts = {};
    // A time that has no year, which only another program can have written, counts as the earliest.
    if (localtime_r(&time, &parts) == nullptr || parts.tm_year < 0 || parts.tm_year > 8099)
        parts = {};
    months[parts.tm_year * 12 + parts.tm_mon].add(category, size);
}

std::map<std::string, CategoryTotals> MonthlyTotals::byName() const
{
    std::map<std::string, CategoryTotals> named;
    for (const auto& [month, totals] : months)
        named.emplace(fmt::format("{:04}-{:02}", 1900 + month / 12, month % 12 + 1), totals);
    return named;
}
