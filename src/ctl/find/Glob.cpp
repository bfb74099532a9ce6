#include "ctl/find/Glob.h"

#include "ctl/Text.h"

#include <algorithm>
#include <cctype>

namespace {

/// Codes of bytes that are no character begin behind those of all characters.
constexpr unsigned strayBytes = 0x110000;

unsigned upper(unsigned code) { return code >= 'a' && code <= 'z' ? code - 'a' + 'A' : code; }

struct Class {
    std::string_view name;
    int (*holds)(int);
};

const Class* findClass(std::string_view name)
{
    static const Class classes[] = { { "alnum", std::isalnum }, { "alpha", std::isalpha }, { "blank", std::isblank },
        { "cntrl", std::iscntrl }, { "digit", std::isdigit }, { "graph", std::isgraph }, { "lower", std::islower },
        { "print", std::isprint }, { "punct", std::ispunct }, { "space", std::isspace }, { "upper", std::isupper },
        { "xdigit", std::isxdigit } };
    const auto* const found
        = std::find_if(std::begin(classes), std::end(classes), [name](const Class& each) { return each.name == name; });
    return found == std::end(classes) ? nullptr : found;
}

} // namespace

bool Glob::isGlob(std::string_view pattern) { return pattern.find_first_of("*?[") != std::string_view::npos; }

Glob::Glob(std::string_view pattern, bool caseIgnored)
    : ignoreCase(caseIgnored)
{
    while (!pattern.empty()) {
        const std::string_view rest = pattern[0] == '[' ? addSet(pattern) : pattern;
        if (rest.size() != pattern.size()) {
            pattern = rest;
            continue;
        }
        if (pattern[0] == '*') {
            pieces.push_back({ Piece::star, 0, false, {}, {} });
            last.clear();
            pattern.remove_prefix(1);
        } else if (pattern[0] == '?') {
            pieces.push_back({ Piece::any, 0, false, {}, {} });
            last.clear();
            pattern.remove_prefix(1);
        } else {
            if (pattern[0] == '\\' && pattern.size() > 1)
                pattern.remove_prefix(1);
            const std::size_t length = characterAt(pattern).length;
            addLiteral(pattern.substr(0, length));
            pattern.remove_prefix(length);
        }
    }
}

void Glob::addLiteral(std::string_view character)
{
    const bool onlyLiterals
        = std::all_of(pieces.begin(), pieces.end(), [](const Piece& piece) { return piece.kind == Piece::literal; });
    const unsigned code = characterAt(character).code;
    pieces.push_back({ Piece::literal, ignoreCase ? lower(code) : code, false, {}, {} });
    if (ignoreCase)
        return;
    last += character;
    if (onlyLiterals)
        first += character;
}

/// Adds the set that the pattern begins with and returns what follows it; the pattern itself when the set has no end.
std::string_view Glob::addSet(std::string_view pattern)
{
    Piece piece { Piece::set, 0, false, {}, {} };
    std::string_view rest = pattern.substr(1);
    if (!rest.empty() && (rest[0] == '!' || rest[0] == '^')) {
        piece.negated = true;
        rest.remove_prefix(1);
    }
    const auto take = [&rest] {
        if (rest[0] == '\\' && rest.size() > 1)
            rest.remove_prefix(1);
        const Character character = characterAt(rest);
        rest.remove_prefix(character.length);
        return character.code;
    };
    for (bool begun = false; !rest.empty() && (rest[0] != ']' || !begun); begun = true) {
        const std::size_t end = rest.substr(0, 2) == "[:" ? rest.find(":]", 2) : std::string_view::npos;
        const Class* const named = end == std::string_view::npos ? nullptr : findClass(rest.substr(2, end - 2));
        if (named != nullptr) {
            for (int code = 0; code < 128; ++code) {
                if (named->holds(code) != 0)
                    piece.classes.set(static_cast<std::size_t>(code));
            }
            rest.remove_prefix(end + 2);
            continue;
        }
        const unsigned from = take();
        unsigned to = from;
        if (rest.size() > 1 && rest[0] == '-' && rest[1] != ']') {
            rest.remove_prefix(1);
            to = take();
        }
        piece.ranges.emplace_back(from, to);
    }
    if (rest.empty())
        return pattern;
    pieces.push_back(piece);
    last.clear();
    return rest.substr(1);
}

Glob::Character Glob::characterAt(std::string_view text)
{
    const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    if (byte(0) < 0x80)
        return { byte(0), 1 };
    const std::size_t length = characterLength(text);
    if (length == 0)
        return { strayBytes + byte(0), 1 };
    unsigned code = byte(0) & (0x7fU >> length);
    for (std::size_t i = 1; i < length; ++i)
        code = (code << 6U) | (byte(i) & 0x3fU);
    return { code, length };
}

bool Glob::holds(const Piece& piece, unsigned code)
{
    return (code < 128 && piece.classes[code])
        || std::any_of(piece.ranges.begin(), piece.ranges.end(),
            [code](const auto& range) { return range.first <= code && code <= range.second; });
}

bool Glob::accepts(const Piece& piece, unsigned code) const
{
    switch (piece.kind) {
    case Piece::literal:
        return piece.code == (ignoreCase ? lower(code) : code);
    case Piece::any:
        return true;
    case Piece::set:
        return piece.negated
            != (holds(piece, code) || (ignoreCase && (holds(piece, lower(code)) || holds(piece, upper(code)))));
    case Piece::star:
        break;
    }
    return false;
}

bool Glob::matches(std::string_view text) const
{
    if (text.size() < last.size() || text.substr(text.size() - last.size()) != last
        || text.substr(0, first.size()) != first)
        return false;
    // Only the last star that was met can take more: what an earlier one would take, this one can take as well.
    std::size_t at = 0;
    std::size_t piece = 0;
    std::size_t star = pieces.size();
    std::size_t starEnd = 0;
    while (at < text.size()) {
        const Character character = characterAt(text.substr(at));
        if (piece < pieces.size() && pieces[piece].kind == Piece::star) {
            star = piece++;
            starEnd = at;
            if (piece == pieces.size())
                return true;
        } else if (piece < pieces.size() && accepts(pieces[piece], character.code)) {
            at += character.length;
            ++piece;
        } else if (star < pieces.size()) {
            starEnd += characterAt(text.substr(starEnd)).length;
            at = starEnd;
            piece = star + 1;
        } else {
            return false;
        }
    }
    return std::all_of(pieces.begin() + static_cast<std::ptrdiff_t>(piece), pieces.end(),
        [](const Piece& rest) { return rest.kind == Piece::star; });
}
