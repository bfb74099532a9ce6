#pragma once

#include <string>

/// Splits a string into tokens that runs of delimiter characters separate. Leading, trailing and repeated delimiters
/// make no empty tokens: an empty token means the end.
class Tokenizer {
public:
    /// An empty text, split at white space.
    Tokenizer();
    /// `delimiter` is a set: each of its characters separates tokens.
    Tokenizer(const std::string& str, const std::string& delimiter);

    void set(const std::string& str, const std::string& delimiter);
    void setString(const std::string& str);
    /// Also starts again from the first token.
    void setDelimiter(const std::string& delimiter);

    /// The next token, or the empty string when there is none left.
    std::string next();

    void skipDelimiter();
    bool isDelimiter(char c);

private:
    std::string buffer;
    std::string token;
    std::string delimiters;
    std::string::size_type position; ///< an index, not an iterator: a copied Tokenizer goes on in its own buffer
};
