#pragma once

#include <libxml/tree.h>

#include <mutex>
#include <string>

/// The process-wide turn at libxml2: a lock that is held from the first call of the library to the clean-up.
/// xmlCleanupParser() destroys state that all threads of the process share, so only one thread may be inside. Any
/// thread may take the turn, with or without a volume's lock, and it takes no other lock while it has the turn.
class XmlTurn {
public:
    XmlTurn();  ///< waits for the turn; not recursive
    ~XmlTurn(); ///< calls xmlCleanupParser()
    XmlTurn(const XmlTurn&) = delete;
    XmlTurn& operator=(const XmlTurn&) = delete;

private:
    std::unique_lock<std::mutex> turn;
};

/// An XML file read into a tree, freed with the object. Holds the turn at libxml2 for its whole life.
class XmlDocument {
public:
    /// `trusted`: an administrator's file, read whatever the path leads to. `untrusted`: users of the volume can put
    /// links, pipes and any content there, so only a regular file of limited size is read, without following links, and
    /// parseUntrusted() parses it.
    enum Origin { trusted, untrusted };
    /// Bytes. A state file has a few hundred. The parser's time and memory grow faster than a document with many
    /// attributes or declarations, and all volumes wait for the turn meanwhile.
    static constexpr std::string::size_type largestUntrusted = 16384;

    XmlDocument(const std::string& path, Origin origin);
    ~XmlDocument();
    XmlDocument(const XmlDocument&) = delete;
    XmlDocument& operator=(const XmlDocument&) = delete;

    bool isParsed() const { return document != nullptr; }
    xmlDocPtr get() const { return document; }
    xmlNodePtr root() const;

private:
    const std::string untrustedText; ///< read before the turn begins, since one volume's disk may stall
    XmlTurn turn;
    xmlDocPtr document;
};

/// Parses text that a user may have written. `path` is the name of the document in messages; `options` are libxml2's.
/// nullptr when the text is no XML, and when it declares parameter entities. The caller has the turn at libxml2, and
/// frees the document by xmlFreeDoc().
xmlDocPtr parseUntrusted(const std::string& text, const std::string& path, int options);

/// Whether the node is an element of that name. False for nullptr.
bool isElement(const xmlNode* node, const char* name);

/// The content of the element's first child; nullptr when there is no child, or the child has no text of its own.
const char* elementText(const xmlNode* element);

/// The number that the text begins with; 0 without one. What does not fit into an int is cut to its lower bits.
int numberIn(const char* text);
