#include "ctl/check/ConfigurationTexts.h"

#include <algorithm>
#include <vector>

namespace {

constexpr std::size_t longestName = 40; ///< no known name is nearly as long
constexpr std::size_t longestExcerpt = 60;

std::string inLowerCase(std::string text)
{
    for (char& c : text)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return text;
}

/// How many bytes are to be inserted, removed or replaced.
std::size_t distance(const std::string& one, const std::string& other)
{
    std::vector<std::size_t> row(other.length() + 1);
    for (std::size_t i = 0; i <= other.length(); ++i)
        row[i] = i;
    for (std::size_t i = 1; i <= one.length(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= other.length(); ++j) {
            const std::size_t replaced = diagonal + (one[i - 1] == other[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({ row[j] + 1, row[j - 1] + 1, replaced });
        }
    }
    return row.back();
}

} // namespace

std::string quoted(const std::string& text) { return "'" + text + "'"; }

bool isResembling(const std::string& one, const std::string& other)
{
    if (one.length() > longestName)
        return false;
    const std::size_t allowed = other.length() > 5 ? 2 : 1;
    return distance(inLowerCase(one), inLowerCase(other)) <= allowed;
}

std::string excerpt(const std::string& text)
{
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos)
        return "";
    std::string trimmed = text.substr(first, text.find_last_not_of(blanks) - first + 1);
    if (trimmed.length() <= longestExcerpt)
        return trimmed;
    std::size_t end = longestExcerpt;
    while (end > 0 && (static_cast<unsigned char>(trimmed[end]) & 0xc0U) == 0x80) // not in the middle of a character
        --end;
    return trimmed.substr(0, end) + "...";
}
