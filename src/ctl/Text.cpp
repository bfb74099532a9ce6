#include "ctl/Text.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <array>
#include <ctime>

namespace {

bool isControl(std::string_view character)
{
    const auto first = static_cast<unsigned char>(character[0]);
    // The second half are those that terminals know in UTF-8, U+0080 to U+009F.
    return first < 0x20 || first == 0x7f || (first == 0xc2 && static_cast<unsigned char>(character[1]) < 0xa0);
}

std::string escaped(std::string_view bytes)
{
    std::string text;
    for (const char c : bytes) {
        if (c == '\n')
            text += "\\n";
        else if (c == '\t')
            text += "\\t";
        else
            text += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    }
    return text;
}

} // namespace

std::size_t characterLength(std::string_view bytes)
{
    const auto at = [bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned first = at(0);
    const std::size_t length = first < 0x80 ? 1
        : first < 0xc2                      ? 0
        : first < 0xe0                      ? 2
        : first < 0xf0                      ? 3
        : first < 0xf5                      ? 4
                                            : 0;
    if (length == 0 || length > bytes.size())
        return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((at(i) & 0xc0U) != 0x80)
            return 0;
    }
    // Overlong forms, surrogates, and what is above U+10FFFF.
    if ((first == 0xe0 && at(1) < 0xa0) || (first == 0xed && at(1) > 0x9f) || (first == 0xf0 && at(1) < 0x90)
        || (first == 0xf4 && at(1) > 0x8f))
        return 0;
    return length;
}

std::string visible(std::string_view bytes)
{
    std::string text;
    while (!bytes.empty()) {
        const std::size_t length = characterLength(bytes);
        const std::string_view character = bytes.substr(0, length == 0 ? 1 : length);
        if (length == 0 || isControl(character))
            text += escaped(character);
        else
            text += character;
        bytes.remove_prefix(character.size());
    }
    return text;
}

bool isUtf8(std::string_view bytes)
{
    while (!bytes.empty()) {
        const std::size_t length = characterLength(bytes);
        if (length == 0)
            return false;
        bytes.remove_prefix(length);
    }
    return true;
}

void setBytes(nlohmann::ordered_json& object, const std::string& key, std::string_view bytes)
{
    if (isUtf8(bytes)) {
        object[key] = bytes;
        return;
    }
    std::string text;
    std::string hex;
    for (std::string_view rest = bytes; !rest.empty();) {
        const std::size_t length = characterLength(rest);
        text += length == 0 ? "\xef\xbf\xbd" : std::string(rest.substr(0, length));
        rest.remove_prefix(length == 0 ? 1 : length);
    }
    for (const char c : bytes)
        hex += fmt::format("{:02x}", static_cast<unsigned char>(c));
    object[key] = text;
    object[key + "_hex"] = hex;
}

std::string jsonText(const nlohmann::ordered_json& object, int indent)
{
    std::string json = object.dump(indent);
    if (json.find_first_of("\x7f\xc2") == std::string::npos) // as nearly always
        return json;
    std::string text;
    for (std::size_t at = 0; at < json.size();) {
        const std::size_t length = characterLength(std::string_view(json).substr(at));
        const std::string_view character(&json[at], length);
        if (isControl(character) && character != "\n")
            text += fmt::format("\\u{:04x}", static_cast<unsigned char>(character.back()));
        else
            text += character;
        at += length;
    }
    return text;
}

std::string humanBytes(long long bytes)
{
    static constexpr std::array<const char*, 6> units = { "KiB", "MiB", "GiB", "TiB", "PiB", "EiB" };
    if (bytes > -1024 && bytes < 1024)
        return fmt::format("{} bytes", bytes);
    auto value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    for (; unit + 1 < units.size() && (value >= 1024 || value <= -1024); ++unit)
        value /= 1024;
    return fmt::format("{:.1f} {}", value, units[unit]);
}

std::string withSeparators(long long number)
{
    std::string digits = std::to_string(number);
    const int first = number < 0 ? 1 : 0;
    for (int at = static_cast<int>(digits.size()) - 3; at > first; at -= 3)
        digits.insert(static_cast<std::size_t>(at), ",");
    return digits;
}

std::string localTime(long long seconds)
{
    const std::time_t time = seconds;
    std::tm parts = {};
    if (localtime_r(&time, &parts) == nullptr)
        return std::to_string(seconds);
    return fmt::format("{:%Y-%m-%d %H:%M:%S}", parts);
}

const char* categoryName(long long category)
{
    switch (category) {
    case 1:
        return "video";
    case 2:
        return "audio";
    case 3:
        return "image";
    default:
        return "other";
    }
}
