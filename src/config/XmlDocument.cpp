#include "config/XmlDocument.h"

#include <libxml/parser.h>

#include <cstring>

static std::mutex libxmlMutex;

XmlTurn::XmlTurn()
    : turn(libxmlMutex)
{
}

XmlTurn::~XmlTurn() { xmlCleanupParser(); }

XmlDocument::XmlDocument(const std::string& path)
    : document(xmlReadFile(path.c_str(), nullptr, 0))
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
