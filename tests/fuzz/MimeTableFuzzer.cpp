#include "FuzzSupport.h"

#include "classify/MimeTypeMapper.h"

#include <set>

using oru::util::MimeTypeMapper;

namespace {

/// Cuts at each of the separators; the pieces may be empty.
std::vector<std::string> cut(const std::string& text, const std::string& separators)
{
    std::vector<std::string> pieces(1);
    for (const char c : text) {
        if (separators.find(c) == std::string::npos)
            pieces.back() += c;
        else
            pieces.emplace_back();
    }
    return pieces;
}

/// A table by the rules of the file, line by line.
struct ExpectedTable {
    explicit ExpectedTable(const std::string& content)
    {
        for (const std::string& line : cut(content, "\n"))
            take(line);
    }

    void take(const std::string& line)
    {
        std::list<std::string> words;
        for (const std::string& word : cut(line, " \t\v\f\r")) {
            if (!word.empty() && word[0] == '#')
                break;
            if (!word.empty())
                words.push_back(word);
        }
        seenWords.insert(words.begin(), words.end());
        if (words.size() < 2)
            return;
        const std::string type = words.front();
        words.pop_front();
        for (const std::string& extension : words) {
            if (typeOf.count(extension) == 0)
                typeOf[extension] = type;
        }
        if (extensionsOf.count(type) == 0)
            extensionsOf[type] = words;
    }

    std::map<std::string, std::list<std::string>> extensionsOf;
    std::map<std::string, std::string> typeOf;
    std::set<std::string> seenWords;
};

} // namespace

/// The bytes are the file.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const PrivateFolder folder;
    const std::string content(reinterpret_cast<const char*>(data), size);
    folder.write("mime_types.txt", content);
    const MimeTypeMapper table(folder.path("mime_types.txt"));
    const ExpectedTable expected(content);

    std::list<std::string> types;
    for (const auto& [type, extensions] : expected.extensionsOf) {
        types.push_back(type);
        REQUIRE(table.MimeTypeToExtensions(type) == extensions);
        for (const std::string& extension : extensions)
            REQUIRE(!table.ExtensionToMimeType(extension).empty());
    }
    REQUIRE(table.MimeTypes() == types);
    for (const auto& [extension, type] : expected.typeOf) {
        REQUIRE(table.ExtensionToMimeType(extension) == type);
        REQUIRE(expected.extensionsOf.count(type) == 1); // no file has a type that the categories do not know
    }

    // What the file does not say is unknown: words in the wrong place, and what is in no file.
    const std::list<std::string>& none = table.MimeTypeToExtensions("");
    REQUIRE(none.empty());
    for (const std::string& word : expected.seenWords) {
        if (expected.typeOf.count(word) == 0)
            REQUIRE(table.ExtensionToMimeType(word).empty());
        if (expected.extensionsOf.count(word) == 0)
            REQUIRE(&table.MimeTypeToExtensions(word) == &none);
    }
    REQUIRE(table.ExtensionToMimeType("").empty());
    REQUIRE(table.ExtensionToMimeType("#").empty());
    REQUIRE(takeLog().empty());
    return 0;
}
