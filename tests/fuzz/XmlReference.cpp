#include "XmlReference.h"

#include "FuzzSupport.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <algorithm>

namespace {

void dropMessage(void*, const char*, ...) { }

/// What the parser says about broken input is not looked at, and there is a lot of it.
void silenceParser() { xmlSetGenericErrorFunc(nullptr, dropMessage); }

std::string nameOf(const xmlNode* node) { return reinterpret_cast<const char*>(node->name); }

std::optional<std::string> textOf(const xmlNode* element)
{
    const xmlNode* child = element->children;
    if (child == nullptr || child->content == nullptr)
        return std::nullopt;
    return reinterpret_cast<const char*>(child->content);
}

/// The element `level` steps up; nullptr above the root.
xmlNodePtr ancestor(xmlNodePtr node, int level)
{
    while (level-- > 0 && node != nullptr)
        node = node->parent;
    return node != nullptr && node->type == XML_ELEMENT_NODE ? node : nullptr;
}

std::vector<std::string> loadedUrls;
xmlExternalEntityLoader usualLoader;

xmlParserInputPtr noteLoad(const char* url, const char* id, xmlParserCtxtPtr context)
{
    loadedUrls.emplace_back(url != nullptr ? url : "");
    return usualLoader(url, id, context);
}

} // namespace

XmlReference::XmlReference(xmlDocPtr parsed)
    : document(parsed, xmlFreeDoc)
{
}

XmlReference XmlReference::ofFile(const std::string& path)
{
    silenceParser();
    return XmlReference(xmlReadFile(path.c_str(), nullptr, 0));
}

XmlReference XmlReference::ofText(const std::string& text)
{
    silenceParser();
    return XmlReference(xmlReadMemory(text.data(), static_cast<int>(text.length()), nullptr, nullptr, 0));
}

std::string XmlReference::Element::ancestry(int level) const
{
    const xmlNode* found = ancestor(node, level);
    return found == nullptr ? "" : nameOf(found);
}

std::string XmlReference::Element::nameBeside(int level) const
{
    const xmlNode* found = ancestor(node, level);
    REQUIRE(found != nullptr);
    for (const xmlNode* child = found->children; child != nullptr; child = child->next) {
        if (child->type == XML_ELEMENT_NODE && nameOf(child) == "Name")
            return textOf(child).value_or("");
    }
    return "";
}

bool XmlReference::hasEntitiesOfDeclarations() const
{
    const xmlDtd* type = document != nullptr ? document->intSubset : nullptr;
    return type != nullptr && type->pentities != nullptr;
}

std::vector<XmlReference::Element> XmlReference::elements() const
{
    std::vector<Element> found;
    xmlNodePtr node = xmlDocGetRootElement(document.get());
    while (node != nullptr) {
        const bool isElement = node->type == XML_ELEMENT_NODE;
        if (isElement)
            found.push_back({ node, textOf(node) });
        if (isElement && node->children != nullptr) {
            node = node->children;
            continue;
        }
        while (node != nullptr && node->next == nullptr)
            node = ancestor(node, 1);
        if (node != nullptr)
            node = node->next;
    }
    return found;
}

std::string XmlReference::withTextIn(const std::function<bool(const Element&)>& isChosen, const std::string& text) const
{
    std::vector<Element> chosen = elements();
    chosen.erase(std::remove_if(chosen.begin(), chosen.end(), std::not_fn(isChosen)), chosen.end());
    for (const Element& element : chosen)
        xmlNodeSetContent(element.node, reinterpret_cast<const xmlChar*>(text.c_str()));
    xmlChar* dumped = nullptr;
    int length = 0;
    xmlDocDumpMemoryEnc(document.get(), &dumped, &length, "UTF-8"); // to be compared, whatever its encoding is
    std::string whole(reinterpret_cast<const char*>(dumped), static_cast<std::size_t>(length));
    xmlFree(dumped);
    return whole;
}

XmlLoads::XmlLoads()
{
    silenceParser();
    loadedUrls.clear();
    usualLoader = xmlGetExternalEntityLoader();
    xmlSetExternalEntityLoader(noteLoad);
}

XmlLoads::~XmlLoads() { xmlSetExternalEntityLoader(usualLoader); }

std::vector<std::string> XmlLoads::urls() const { return loadedUrls; }
