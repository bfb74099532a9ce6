#include "ctl/find/NamePattern.h"

#include <algorithm>

namespace {

bool equalButForCase(unsigned char left, unsigned char right) { return lower(left) == lower(right); }

} // namespace

NamePattern::NamePattern(const std::string& pattern, Words kind, bool caseIgnored)
    : text(pattern)
    , words(kind)
    , ignoreCase(caseIgnored)
    , aboutPaths(pattern.find('/') != std::string::npos)
{
    if (words == Words::wildcards && Glob::isGlob(text))
        glob.emplace(text, ignoreCase);
}

bool NamePattern::matches(std::string_view nameOrPath) const
{
    if (glob)
        return glob->matches(nameOrPath);
    if (words == Words::exact) {
        return ignoreCase ? std::equal(text.begin(), text.end(), nameOrPath.begin(), nameOrPath.end(), equalButForCase)
                          : nameOrPath == text;
    }
    if (!ignoreCase)
        return nameOrPath.find(text) != std::string_view::npos;
    return text.empty()
        || std::search(nameOrPath.begin(), nameOrPath.end(), text.begin(), text.end(), equalButForCase)
        != nameOrPath.end();
}

std::optional<std::string> NamePattern::only() const
{
    return words == Words::exact && !ignoreCase ? std::optional(text) : std::nullopt;
}

const std::string& NamePattern::beginning() const
{
    static const std::string unknown;
    return glob ? glob->beginning() : unknown;
}
