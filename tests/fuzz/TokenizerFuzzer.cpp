#include "FuzzSupport.h"

#include "classify/Tokenizer.h"

namespace {

/// The tokens by the plainest of rules: a delimiter ends a token, and empty tokens do not count.
std::vector<std::string> tokensOf(const std::string& text, const std::string& delimiters)
{
    std::vector<std::string> tokens(1);
    for (const char c : text) {
        bool isDelimiter = false;
        for (const char delimiter : delimiters)
            isDelimiter = isDelimiter || c == delimiter;
        if (!isDelimiter)
            tokens.back() += c;
        else if (!tokens.back().empty())
            tokens.emplace_back();
    }
    if (tokens.back().empty())
        tokens.pop_back();
    return tokens;
}

/// Takes every token and asks twice more: the end stays the end.
std::vector<std::string> drain(Tokenizer& tokenizer)
{
    std::vector<std::string> tokens;
    for (std::string token = tokenizer.next(); !token.empty(); token = tokenizer.next())
        tokens.push_back(token);
    REQUIRE(tokenizer.next().empty());
    REQUIRE(tokenizer.next().empty());
    return tokens;
}

} // namespace

/// The low half of the first byte says how many of the next are delimiters; the rest is the text.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    InputBytes input(data, size);
    const std::string delimiters = input.take(input.takeByte() & 15U);
    const std::string text = input.takeRest();
    const std::vector<std::string> expected = tokensOf(text, delimiters);

    Tokenizer tokenizer(text, delimiters);
    REQUIRE(drain(tokenizer) == expected);
    for (int c = 0; c < 256; ++c) // all of them, the zero byte too
        REQUIRE(tokenizer.isDelimiter(static_cast<char>(c))
            == (delimiters.find(static_cast<char>(c)) != std::string::npos));

    // Whatever was taken before, a new text or set of delimiters starts from the first token.
    tokenizer.setString(text);
    tokenizer.next();
    tokenizer.setString(text);
    REQUIRE(drain(tokenizer) == expected);
    tokenizer.setDelimiter(delimiters + "x");
    REQUIRE(drain(tokenizer) == tokensOf(text, delimiters + "x"));
    tokenizer.set(text, delimiters);
    tokenizer.skipDelimiter(); // what next() would do anyway
    REQUIRE(drain(tokenizer) == expected);

    // A copy goes on by itself, in its own text.
    Tokenizer original(text, delimiters);
    for (std::size_t taken = 0; taken < expected.size() / 2; ++taken)
        original.next();
    Tokenizer copy = original;
    const std::vector<std::string> rest = drain(original);
    REQUIRE(drain(copy) == rest);
    REQUIRE(rest.size() == expected.size() - expected.size() / 2);

    Tokenizer words;
    REQUIRE(words.next().empty());
    words.setString(text);
    REQUIRE(drain(words) == tokensOf(text, " \t\n\v\f\r"));
    return 0;
}
