#pragma once

#include <libxml/tree.h>

#include <mutex>
#include <string>

/// The process-wide turn at libxml2. xmlCleanupParser() tears down state that every thread of the process shares, so
/// from the first call to the clean-up only one thread may be inside.
class XmlTurn {
public:
    XmlTurn();
    ~XmlTurn(); ///< calls xmlCleanupParser()
    XmlTurn(const XmlTurn&) = delete;
    XmlTurn& operator=(const XmlTurn&) = delete;

private:
    std::unique_lock<std::mutex> turn;
};

/// An XML file read into a tree, freed with the object. Holds the turn at libxml2 for its whole life.
class XmlDocument {
public:
    /// `trusted`: read whatever the path leads to, as an administrator's file is. `untrusted`: a regular file alone,
    /// under its own name and of a sensible size, by parseUntrusted(); users of a volume can put links, pipes and any
    /// content there.
    enum Origin { trusted, untrusted };
    /// Bytes. A state file has a few hundred. The parser takes time and memory that grow faster than a document of many
    /// attributes or declarations, and it is every volume's turn that such a document takes.
    static constexpr std::string::size_type largestUntrusted = 16384;

    XmlDocument(const std::string& path, Origin origin);
    ~XmlDocument();
    XmlDocument(const XmlDocument&) = delete;
    XmlDocument& operator=(const XmlDocument&) = delete;

    bool isParsed() const { return document != nullptr; }
    xmlDocPtr get() const { return document; }
    xmlNodePtr root() const;

private:
    const std::string untrustedText; ///< read before the turn begins: one stalled volume must not hold up the others
    XmlTurn turn;
    xmlDocPtr document;
};

/// A document of text that a user may have written, with libxml2's parser options; nullptr when it is none, or declares
/// entities for its declarations. `path` is what messages call it. In a turn at libxml2 only; to be freed by
/// xmlFreeDoc().
xmlDocPtr parseUntrusted(const std::string& text, const std::string& path, int options);

bool isElement(const xmlNode* node, const char* name);

/// The content of the element's first child; nullptr when there is no child or it holds no text of its own.
const char* elementText(const xmlNode* element);
