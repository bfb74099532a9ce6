#pragma once

#include <libxml/tree.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// A document as libxml2 reads it, with its elements listed flat, against which a reader of such documents is checked.
class XmlReference {
public:
    static XmlReference ofFile(const std::string& path);
    static XmlReference ofText(const std::string& text);

    /// An element with what its meaning may depend on.
    struct Element {
        xmlNodePtr node;
        /// The content of the first child; none when there is no child, or it is an element.
        std::optional<std::string> text;

        /// The name of the element (0), its parent (1), and so on; empty above the root.
        std::string ancestry(int level) const;
        /// The text of the first Name in that ancestor; empty without any.
        std::string nameBeside(int level) const;
    };

    bool isParsed() const { return document != nullptr; }
    /// Whether the document type declares entities for use in declarations, which a state file may not.
    bool hasEntitiesOfDeclarations() const;
    /// Every element, parents before children, in document order; none below anything that is no element.
    std::vector<Element> elements() const;
    /// The document as text once the chosen elements, none inside another, have this text as their only content.
    std::string withTextIn(const std::function<bool(const Element&)>& isChosen, const std::string& text) const;

private:
    explicit XmlReference(xmlDocPtr parsed);

    std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)> document;
};

/// Notes what libxml2 opens by name for the length of a scope, and keeps it from writing to standard error.
class XmlLoads {
public:
    XmlLoads();
    ~XmlLoads();
    XmlLoads(const XmlLoads&) = delete;
    XmlLoads& operator=(const XmlLoads&) = delete;

    std::vector<std::string> urls() const;
};
