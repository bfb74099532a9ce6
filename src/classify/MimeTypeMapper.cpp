#include "classify/MimeTypeMapper.h"

#include <fstream>

namespace oru::util {

namespace {

/// isspace() of the POSIX locale, whatever locale an embedding program has set.
bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

} // namespace

MimeTypeMapper& MimeTypeMapper::Instance()
{
    static MimeTypeMapper table("/usr/local/quarrow/mime_types.txt");
    return table;
}

MimeTypeMapper::MimeTypeMapper(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        std::string mimeType;
        std::list<std::string> extensions;
        ParseLine(line, mimeType, extensions);
        if (mimeType.empty() || extensions.empty())
            continue;
        // First come, first served, on both sides on purpose: a later line for a known type does not lengthen the
        // type's list, yet it still claims the extensions that nobody has claimed before.
        mimeToExtensions.insert({ mimeType, extensions });
        for (const std::string& extension : extensions)
            extensionToMime.insert({ extension, mimeType });
    }
}

std::string MimeTypeMapper::ExtensionToMimeType(const std::string& extension) const
{
    const auto found = extensionToMime.find(extension);
    return found == extensionToMime.end() ? std::string() : found->second;
}

const std::list<std::string>& MimeTypeMapper::MimeTypeToExtensions(const std::string& mimeType) const
{
    static const std::list<std::string> none;
    const auto found = mimeToExtensions.find(mimeType);
    return found == mimeToExtensions.end() ? none : found->second;
}

std::list<std::string> MimeTypeMapper::MimeTypes() const
{
    std::list<std::string> types;
    for (const auto& entry : mimeToExtensions)
        types.push_back(entry.first);
    return types;
}

void MimeTypeMapper::DumpMaps() const { }

void MimeTypeMapper::ParseLine(const std::string& line, std::string& mimeType, std::list<std::string>& extensions)
{
    std::string::size_type position = SkipSpace(line, 0);
    if (position < line.length() && line[position] == '#')
        return;
    mimeType = ExrtactWord(line, position);
    for (;;) {
        position = SkipSpace(line, position);
        if (position == line.length() || line[position] == '#') // a '#' inside a word is an ordinary character
            return;
        extensions.push_back(ExrtactWord(line, position));
    }
}

std::string MimeTypeMapper::ExrtactWord(const std::string& line, std::string::size_type& position)
{
    const std::string::size_type start = position;
    while (position < line.length() && !isSpace(line[position]))
        ++position;
    return line.substr(start, position - start);
}

std::string::size_type MimeTypeMapper::SkipSpace(const std::string& line, std::string::size_type position)
{
    while (position < line.length() && isSpace(line[position]))
        ++position;
    return position;
}

} // namespace oru::util
