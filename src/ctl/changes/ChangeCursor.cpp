#include "ctl/changes/ChangeCursor.h"

#include "ctl/Fnv.h"
#include "ctl/Problem.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <vector>

namespace {

constexpr std::string_view prefix = "qc1."; // the number is that of the format
constexpr std::string_view blanks = " \t\r\n";
constexpr std::size_t fieldCount = 17;

std::string hexOf(std::string_view bytes)
{
    std::string hex;
    for (const char c : bytes)
        hex += fmt::format("{:02x}", static_cast<unsigned char>(c));
    return hex;
}

template <typename Number>
bool parseNumber(std::string_view text, Number& number, int base = 10)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc() && end == text.data() + text.size();
}

bool parseHex(std::string_view hex, std::string& bytes)
{
    if (hex.size() % 2 != 0)
        return false;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        unsigned char byte = 0;
        if (!parseNumber(hex.substr(i, 2), byte, 16))
            return false;
        bytes += static_cast<char>(byte);
    }
    return true;
}

std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    for (;;) {
        const std::size_t end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos)
            return parts;
        text.remove_prefix(end + 1);
    }
}

std::string positionText(const std::string& name, const VolumePosition& at)
{
    return fmt::format("{}:{}:{}:{}:{}:{}:{}:{}:{}:{}:{:x}:{:x}:{}:{}:{:x}:{}:{}", hexOf(name), at.identity,
        at.lastFolder, at.lastFile, at.floor, at.settled, at.newest, at.oldest, at.readAt, at.clockOffset, at.boot,
        at.digest, at.witnessKind, at.witnessId, at.witnessHash, at.doubtUntil, at.threshold);
}

bool parsePosition(std::string_view text, std::string& name, VolumePosition& at)
{
    const std::vector<std::string_view> fields = split(text, ':');
    if (fields.size() != fieldCount || fields[12].size() != 1)
        return false;
    at.identity = fields[1];
    at.witnessKind = fields[12][0];
    const std::array<long long*, 8> numbers
        = { &at.lastFolder, &at.lastFile, &at.floor, &at.settled, &at.newest, &at.oldest, &at.readAt, &at.clockOffset };
    bool good = parseHex(fields[0], name);
    for (std::size_t i = 0; i < numbers.size(); ++i)
        good = good && parseNumber(fields[2 + i], *numbers[i]);
    return good && parseNumber(fields[10], at.boot, 16) && parseNumber(fields[11], at.digest, 16)
        && parseNumber(fields[13], at.witnessId) && parseNumber(fields[14], at.witnessHash, 16)
        && parseNumber(fields[15], at.doubtUntil) && parseNumber(fields[16], at.threshold);
}

std::string_view trimmed(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

} // namespace

std::string ChangeCursor::text() const
{
    std::string content;
    for (const auto& [name, position] : positions)
        content += "." + positionText(name, position);
    return fmt::format("{}{:016x}{}", prefix, fnv(content), content);
}

ChangeCursor ChangeCursor::parse(std::string_view text, const std::string& origin)
{
    constexpr const char* remedy = "Leave it out for a full listing";
    ChangeCursor cursor;
    std::string_view rest = trimmed(text);
    if (rest.empty())
        return cursor;
    if (rest.substr(0, prefix.size()) != prefix)
        throw Problem(origin, "This is no cursor, or one of another release", remedy);
    rest.remove_prefix(prefix.size());
    const std::size_t end = std::min(rest.find('.'), rest.size());
    std::uint64_t checksum = 0;
    bool good = parseNumber(rest.substr(0, end), checksum, 16) && checksum == fnv(rest.substr(end));
    rest.remove_prefix(end);
    if (good && !rest.empty()) {
        for (const std::string_view part : split(rest.substr(1), '.')) {
            std::string name;
            VolumePosition position;
            good = good && parsePosition(part, name, position);
            cursor.positions[name] = position;
        }
    }
    if (!good)
        throw Problem(origin, "The cursor is damaged", remedy);
    return cursor;
}
