#pragma once

#include "ctl/find/Glob.h"

#include <optional>
#include <string>
#include <string_view>

/// What a user asks for by name. A pattern with a slash is about absolute paths, one without about names.
///
/// With one of the wild cards `*`, `?` and `[` it is a Glob for the whole of it; without, it is a part of it.
class NamePattern {
public:
    enum class Words {
        wildcards, ///< as above
        exact,     ///< the whole name or path, in which nothing is a wild card
    };

    /// `ignoreCase`: as in Glob.
    explicit NamePattern(const std::string& text, Words words = Words::wildcards, bool ignoreCase = false);

    bool isAboutPaths() const { return aboutPaths; }
    /// Whether the name, or the absolute path, is one that the user asks for.
    bool matches(std::string_view nameOrPath) const;

    /// The one text that matches, if there is only one.
    std::optional<std::string> only() const;
    /// What every matching text begins with; empty where nothing is known.
    const std::string& beginning() const;

private:
    std::string text;
    Words words;
    bool ignoreCase;
    bool aboutPaths;
    std::optional<Glob> glob;
};
