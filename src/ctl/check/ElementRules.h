#pragma once

#include <string>

class FindingsAbout;
struct _xmlNode; // NOLINT(bugprone-reserved-identifier): the name is libxml2's

/// The elements that the daemon knows. One that holds others, or one that holds a value.
struct KnownElement {
    enum class Content { elements, setting, value };
    const char* name;
    const char* parent; ///< nullptr: the root element, whatever its name
    Content content;    ///< a setting is a value that is read wherever it stands
};

/// nullptr for a name that the daemon does not know.
const KnownElement* findKnownElement(const std::string& name);

/// Warns of what the daemon passes over: unknown elements, known ones where they do not count or are not expected,
/// attributes, text between elements, and entities that are not followed.
void checkElements(const _xmlNode* rootElement, const FindingsAbout& found);
