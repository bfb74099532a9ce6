#include "config/XmlDocument.h"

#include "core/WithoutLinks.h"

#include <fcntl.h>
#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

static std::mutex libxmlMutex;

XmlTurn::XmlTurn()
    : turn(libxmlMutex)
{
    // Called also where nothing is parsed: without it the clean-up does nothing, and the thread's state would leak.
    xmlInitParser();
}

XmlTurn::~XmlTurn() { xmlCleanupParser(); }

/// The content of a regular file. Empty, which is no XML document, when the path leads to anything else, the file is
/// too large, or it cannot be read.
static std::string readRegularFile(const std::string& path)
{
    const int descriptor = openWithoutLinks(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        return {};
    std::string text;
    struct stat64 status;
    if (fstat64(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
        char buffer[4096];
        ssize_t n;
        while ((n = read(descriptor, buffer, sizeof buffer)) > 0 && text.length() <= XmlDocument::largestUntrusted)
            text.append(buffer, static_cast<std::string::size_type>(n));
        if (n < 0 || text.length() > XmlDocument::largestUntrusted)
            text.clear();
    }
    close(descriptor);
    return text;
}

/// Stops the parser at the first parameter entity. The parser limits how far entities of the content multiply, but not
/// how far those of declarations do: a kilobyte of them keeps it busy for hours. No state file has any.
static void refuseEntitiesOfDeclarations(
    void* context, const xmlChar* name, int type, const xmlChar* publicId, const xmlChar* systemId, xmlChar* content)
{
    if (type != XML_INTERNAL_PARAMETER_ENTITY && type != XML_EXTERNAL_PARAMETER_ENTITY) {
        xmlSAX2EntityDecl(context, name, type, publicId, systemId, content);
        return;
    }
    const auto parser = static_cast<xmlParserCtxtPtr>(context);
    parser->wellFormed = 0;
    xmlStopParser(parser);
}

xmlDocPtr parseUntrusted(const std::string& text, const std::string& path, int options)
{
    const std::unique_ptr<xmlParserCtxt, void (*)(xmlParserCtxtPtr)> parser(xmlNewParserCtxt(), xmlFreeParserCtxt);
    if (parser == nullptr)
        return nullptr;
    parser->sax->entityDecl = refuseEntitiesOfDeclarations;
    return xmlCtxtReadMemory(
        parser.get(), text.data(), static_cast<int>(text.length()), path.c_str(), nullptr, options);
}

XmlDocument::XmlDocument(const std::string& path, Origin origin)
    : untrustedText(origin == untrusted ? readRegularFile(path) : std::string())
    , document(origin == trusted ? xmlReadFile(path.c_str(), nullptr, 0) : parseUntrusted(untrustedText, path, 0))
{
}

XmlDocument::~XmlDocument() { xmlFreeDoc(document); }

xmlNodePtr XmlDocument::root() const { return xmlDocGetRootElement(document); }

bool isElement(const xmlNode* node, const char* name)
{
    return node != nullptr && node->type == XML_ELEMENT_NODE
        && std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

const char* elementText(const xmlNode* element)
{
    return element->children == nullptr ? nullptr : reinterpret_cast<const char*>(element->children->content);
}

// Not atoi(): with a long of 32 bits it makes the greatest number of what does not fit, and the same file would say
// another thing there.
int numberIn(const char* text) { return static_cast<int>(std::strtoll(text, nullptr, 10)); }
