#include "ctl/status/TextBar.h"

#include "ctl/Terminal.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

std::string bar(double part, int columns)
{
    const double bounded = part > 0 ? std::min(part, 1.0) : 0;
    const auto filled = static_cast<std::size_t>(std::lround(bounded * columns));
    return "[" + std::string(filled, '#') + std::string(static_cast<std::size_t>(columns) - filled, ' ') + "]";
}

std::string terminalBar(double part, int columns) { return terminal::isTerminal() ? bar(part, columns) + " " : ""; }

std::string duration(long long seconds)
{
    constexpr long long minute = 60;
    constexpr long long hour = 60 * minute;
    constexpr long long day = 24 * hour;
    if (seconds < minute)
        return fmt::format("{} s", std::max(seconds, 0LL));
    if (seconds < hour)
        return fmt::format("{} min {} s", seconds / minute, seconds % minute);
    if (seconds < day)
        return fmt::format("{} h {} min", seconds / hour, seconds % hour / minute);
    return fmt::format("{} d {} h", seconds / day, seconds % day / hour);
}

std::string cutToColumns(std::string_view line, int columns)
{
    std::string text;
    bool isInColour = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\033') { // as terminal::coloured() makes them: up to an m
            const std::size_t end = std::min(line.find('m', i), line.size() - 1);
            isInColour = line.substr(i, end + 1 - i) != "\033[0m";
            text += line.substr(i, end + 1 - i);
            i = end;
            continue;
        }
        const bool continues = (static_cast<unsigned char>(line[i]) & 0xc0U) == 0x80;
        if (!continues && columns-- <= 0)
            return isInColour ? text + "\033[0m" : text;
        text += line[i];
    }
    return text;
}
