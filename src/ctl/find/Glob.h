#pragma once

#include <bitset>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// What ignoring the case makes of a character: a letter of A to Z becomes small, any other stays.
constexpr unsigned lower(unsigned code) { return code >= 'A' && code <= 'Z' ? code - 'A' + 'a' : code; }

/// A pattern as the shell and find know it, for a whole text: `*` is any text, also one with slashes; `?` one
/// character;
/// `[a-z]` one of these, `[!a-z]` or `[^a-z]` one of all others, `[[:digit:]]` one of a class (of ASCII); a backslash
/// takes the wild card behind it for what it is. A `[` without its `]` stands for itself.
///
/// A character is one of UTF-8, and each byte that belongs to none is one, too.
class Glob {
public:
    /// With `ignoreCase` the letters A to Z are equal to a to z; all others are only equal to themselves.
    explicit Glob(std::string_view pattern, bool ignoreCase = false);

    /// Whether there is any wild card in the pattern.
    static bool isGlob(std::string_view pattern);

    /// In no more than the pattern's length times the text's.
    bool matches(std::string_view text) const;

    /// What every matching text begins with. Empty when the case is ignored.
    const std::string& beginning() const { return first; }

private:
    struct Character {
        unsigned code;
        std::size_t length;
    };
    struct Piece {
        enum Kind { literal, any, star, set } kind;
        unsigned code = 0; ///< of a literal
        bool negated = false;
        std::vector<std::pair<unsigned, unsigned>> ranges; ///< of a set, both ends included
        std::bitset<128> classes;                          ///< of a set: what its classes hold
    };

    static Character characterAt(std::string_view text);
    static bool holds(const Piece& piece, unsigned code);
    std::string_view addSet(std::string_view pattern);
    void addLiteral(std::string_view character);
    bool accepts(const Piece& piece, unsigned code) const;

    std::vector<Piece> pieces;
    std::string first; ///< the literals before the first wild card
    std::string last;  ///< the literals behind the last one: most texts are refused for these
    bool ignoreCase;
};
