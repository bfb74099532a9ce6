#include "config/XmlDocument.h"

#include <fcntl.h>
#include <libxml/parser.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

static std::mutex libxmlMutex;

XmlTurn::XmlTurn()
    : turn(libxmlMutex)
{
    // Also where nothing is parsed: the clean-up does nothing without it, and the next thread's state would leak.
    xmlInitParser();
}

XmlTurn::~XmlTurn() { xmlCleanupParser(); }

static xmlDocPtr readRegularFile(const std::string& path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        return nullptr;
    struct stat64 status;
    const bool isRegular = fstat64(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    xmlDocPtr document = isRegular ? xmlReadFd(descriptor, path.c_str(), nullptr, 0) : nullptr;
    close(descriptor);
    return document;
}

XmlDocument::XmlDocument(const std::string& path, Origin origin)
    : document(origin == trusted ? xmlReadFile(path.c_str(), nullptr, 0) : readRegularFile(path))
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
