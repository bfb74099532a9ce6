#include "ctl/check/ElementRules.h"

#include "config/XmlDocument.h"
#include "ctl/check/ConfigurationTexts.h"
#include "ctl/check/Findings.h"
#include "ctl/check/HostReading.h"

#include <array>
#include <cstring>

namespace {

using Content = KnownElement::Content;

// Path is listed once; it may also stand in ExcludePaths.
constexpr std::array<KnownElement, 12> knownElements = { {
    { "Version", nullptr, Content::setting },
    { "last_updated_time", nullptr, Content::setting },
    { "quarrow_enabled", nullptr, Content::setting },
    { "purge_threshold", nullptr, Content::setting },
    { "rewalk_threshold", nullptr, Content::setting },
    { "Volumes", nullptr, Content::elements },
    { "Volume", "Volumes", Content::elements },
    { "Name", "Volume", Content::value },
    { "Root", "Volume", Content::value },
    { "CrawlPaths", "Volume", Content::elements },
    { "ExcludePaths", "Volume", Content::elements },
    { "Path", "CrawlPaths", Content::value },
} };

bool isRootElement(const xmlNode* element)
{
    return element->parent == nullptr || element->parent->type != XML_ELEMENT_NODE;
}

bool isInPlace(const xmlNode* element, const KnownElement& known)
{
    if (known.parent == nullptr)
        return isRootElement(element->parent);
    return isElement(element->parent, known.parent)
        || (isElement(element, "Path") && isElement(element->parent, "ExcludePaths"));
}

std::string tag(const std::string& name) { return "<" + name + ">"; }

std::string placeOf(const KnownElement& known)
{
    if (known.parent == nullptr)
        return "the root element";
    return std::strcmp(known.name, "Path") == 0 ? "<CrawlPaths> or <ExcludePaths>" : tag(known.parent);
}

void warnOfUnknown(const xmlNode* element, const FindingsAbout& found)
{
    const std::string name = nameOf(element);
    std::string remedy = "Remove it, or correct its name";
    for (const KnownElement& known : knownElements) {
        if (isResembling(name, known.name))
            remedy = "Did you mean " + tag(known.name) + "? Upper and lower case differ";
    }
    found.warn(lineOf(element), "The daemon knows no element " + tag(name) + " and passes over it", remedy);
}

void warnOfPlace(const xmlNode* element, const KnownElement& known, const FindingsAbout& found)
{
    const std::string where = tag(known.name) + " stands in " + tag(nameOf(element->parent));
    const std::string remedy = "Move it into " + placeOf(known);
    const bool counts = known.parent == nullptr;
    if (counts)
        found.warn(lineOf(element), where + ". The daemon reads it all the same", remedy);
    else if (isElement(element, "Volume"))
        found.warn(lineOf(element), where + ". It is no volume there", remedy);
    else
        found.warn(lineOf(element), where + ". It is not read there", remedy);
}

void checkAttributes(const xmlNode* element, const FindingsAbout& found)
{
    for (const xmlAttr* attribute = element->properties; attribute != nullptr; attribute = attribute->next) {
        if (attribute->ns == nullptr)
            found.warn(lineOf(element),
                std::string("The attribute '") + reinterpret_cast<const char*>(attribute->name) + "' of "
                    + tag(nameOf(element)) + " is not read",
                "Write it as an element of its own");
    }
}

/// Text and entities that stand directly in an element which is to hold elements.
void checkBetweenElements(const xmlNode* element, const FindingsAbout& found)
{
    const bool holdsPaths = isElement(element, "CrawlPaths") || isElement(element, "ExcludePaths");
    for (const xmlNode* child = element->children; child != nullptr; child = child->next) {
        if (child->type == XML_ENTITY_REF_NODE) {
            found.warn(lineOf(element),
                "The entity '" + nameOf(child) + "' in " + tag(nameOf(element))
                    + " is not followed. No element in it is read",
                "Write its content in its place");
        } else if ((child->type == XML_TEXT_NODE || child->type == XML_CDATA_SECTION_NODE) && xmlIsBlankNode(child) == 0
            && child->content != nullptr) {
            found.warn(lineOf(element),
                "The text '" + excerpt(reinterpret_cast<const char*>(child->content)) + "' in " + tag(nameOf(element))
                    + " is not read",
                holdsPaths ? "Put it into a <Path>" : "Put it into the element that it belongs to");
        }
    }
}

/// `isPassedOver`: it stands in an unknown element, of which the reader was told.
void check(const xmlNode* element, bool isPassedOver, const FindingsAbout& found)
{
    const KnownElement* const known = findKnownElement(nameOf(element));
    const bool isRoot = isRootElement(element);
    const bool countsAnywhere = known != nullptr && known->parent == nullptr;
    if (!isRoot && known == nullptr && !isPassedOver)
        warnOfUnknown(element, found);
    if (!isRoot && known != nullptr && !isInPlace(element, *known) && (countsAnywhere || !isPassedOver))
        warnOfPlace(element, *known, found);
    if (!isRoot && known != nullptr)
        checkAttributes(element, found);
    if (known != nullptr ? known->content == Content::elements : isRoot)
        checkBetweenElements(element, found);
    // Elements in a value are told of with the value.
    const bool passesOver = !isRoot && (known == nullptr || known->content != Content::elements);
    for (const xmlNode* child = element->children; child != nullptr; child = child->next) {
        if (child->type == XML_ELEMENT_NODE)
            check(child, isPassedOver || passesOver, found);
    }
}

} // namespace

const KnownElement* findKnownElement(const std::string& name)
{
    for (const KnownElement& known : knownElements) {
        if (name == known.name)
            return &known;
    }
    return nullptr;
}

void checkElements(const xmlNode* rootElement, const FindingsAbout& found)
{
    if (rootElement != nullptr)
        check(rootElement, false, found);
}
