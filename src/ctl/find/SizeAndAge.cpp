#include "ctl/find/SizeAndAge.h"

#include "ctl/Problem.h"

#include <charconv>
#include <cmath>
#include <optional>
#include <string_view>

namespace {

/// The decimal number at the beginning of the text, which is taken off it.
std::optional<double> takeNumber(std::string_view& text)
{
    // Not what else may begin a number: signs, "inf", "nan".
    if (text.empty() || text.find_first_of("0123456789.") != 0)
        return std::nullopt;
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    if (error != std::errc())
        return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

std::optional<double> sizeUnit(std::string_view unit)
{
    if (unit.empty() || unit == "B")
        return 1;
    const std::size_t power = std::string_view("kmgtpKMGTP").find(unit[0]);
    if (power == std::string_view::npos)
        return std::nullopt;
    const std::string_view rest = unit.substr(1);
    if (!rest.empty() && rest != "B" && rest != "iB")
        return std::nullopt;
    return std::pow(rest == "B" ? 1000.0 : 1024.0, static_cast<double>(power % 5 + 1));
}

std::optional<double> ageUnit(std::string_view unit)
{
    if (unit == "s")
        return 1;
    if (unit == "m")
        return 60;
    if (unit == "h")
        return 3600;
    if (unit == "d")
        return 86400;
    return unit == "w" ? std::optional<double>(7 * 86400) : std::nullopt;
}

/// Number and unit multiplied; nothing when the text is not both, or too large for any file or time.
template <typename Unit>
std::optional<long long> parse(std::string_view text, const Unit& factorOf)
{
    const std::optional<double> number = takeNumber(text);
    const std::optional<double> factor = number ? factorOf(text) : std::nullopt;
    if (!factor || *number * *factor >= 9e18)
        return std::nullopt;
    return std::llround(*number * *factor);
}

} // namespace

long long parseSize(const std::string& option, const std::string& text)
{
    const std::optional<long long> size = parse(text, sizeUnit);
    if (!size)
        throw Problem(option + " " + text, "This is no size", "Give bytes, or for example 500K, 10M, 1.5G");
    return *size;
}

long long parseAge(const std::string& option, const std::string& text)
{
    const std::optional<long long> age = parse(text, ageUnit);
    if (!age)
        throw Problem(option + " " + text, "This is no span of time",
            "Give a number with its unit: 30s, 90m (minutes), 3h, 2d or 1w");
    return *age;
}
