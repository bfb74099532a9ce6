#include "ctl/check/MimeTableRules.h"

#include "classify/Tokenizer.h"
#include "ctl/check/Findings.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>

namespace {

/// Whether the daemon takes it for a type with a category: it looks at the first five characters alone.
bool hasCategory(const std::string& type)
{
    const std::string kind = type.substr(0, 5);
    return kind == "video" || kind == "audio" || kind == "image";
}

/// By the daemon's rules, line by line.
class MimeTable {
public:
    explicit MimeTable(const FindingsAbout& findings)
        : found(findings)
    {
    }

    void take(const std::string& line)
    {
        ++number;
        Tokenizer words;
        words.setString(line);
        const std::string type = words.next();
        if (type.empty() || type.front() == '#')
            return;
        if (type.find('/') == std::string::npos && !hasCategory(type))
            found.warn(number, "'" + type + "' is no MIME type: the extensions behind it are of category other",
                "Begin the line with a type such as video/mp4");
        for (std::string word = words.next(); !word.empty() && word.front() != '#'; word = words.next())
            takeExtension(word, type);
    }

    bool isEmpty() const { return places.empty(); }

private:
    struct Place {
        int line;
        std::string type;
    };

    void takeExtension(const std::string& extension, const std::string& type)
    {
        if (extension.find('.') != std::string::npos)
            found.warn(number, "The extension '" + extension + "' has a dot, so no file has it",
                "Write what stands behind the last dot of the names");
        const auto [place, isNew] = places.insert({ extension, { number, type } });
        if (!isNew)
            found.warn(number,
                "The extension '" + extension + "' is also in line " + std::to_string(place->second.line)
                    + ", which decides that it is of the type " + place->second.type,
                "Remove one of them");
    }

    const FindingsAbout& found;
    std::map<std::string, Place> places; ///< of the extensions, where each stands first
    int number = 0;
};

} // namespace

void checkMimeTable(const FindingsAbout& found, const std::string& path)
{
    errno = 0;
    std::ifstream file(path);
    const std::string remedy = "Put the table there that belongs to the daemon, and restart it";
    if (!file) {
        found.warn(0,
            std::string("The MIME table cannot be read: ") + std::strerror(errno)
                + ". Every file is of category other without it",
            remedy);
        return;
    }
    MimeTable table(found);
    for (std::string line; std::getline(file, line);)
        table.take(line);
    if (table.isEmpty())
        found.warn(0, "The MIME table lists no extension. Every file is of category other", remedy);
}
