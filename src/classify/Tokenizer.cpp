#include "classify/Tokenizer.h"

static const std::string defaultDelimiters = " \t\v\n\r\f";

Tokenizer::Tokenizer()
    : delimiters(defaultDelimiters)
    , position(0)
{
}

Tokenizer::Tokenizer(const std::string& str, const std::string& delimiter)
    : buffer(str)
    , delimiters(delimiter)
    , position(0)
{
}

void Tokenizer::set(const std::string& str, const std::string& delimiter)
{
    buffer = str;
    delimiters = delimiter;
    position = 0;
}

void Tokenizer::setString(const std::string& str)
{
    buffer = str;
    position = 0;
}

void Tokenizer::setDelimiter(const std::string& delimiter)
{
    delimiters = delimiter;
    position = 0; // on purpose: tokens already taken were cut with the old set, so the text is read afresh
}

std::string Tokenizer::next()
{
    if (buffer.empty())
        return std::string();
    token.clear();
    skipDelimiter();
    while (position < buffer.length() && !isDelimiter(buffer[position]))
        token += buffer[position++];
    return token;
}

void Tokenizer::skipDelimiter()
{
    while (position < buffer.length() && isDelimiter(buffer[position]))
        ++position;
}

bool Tokenizer::isDelimiter(char c) { return delimiters.find(c) != std::string::npos; }
