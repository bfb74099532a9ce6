#include "ctl/check/ValueRules.h"

#include "config/XmlDocument.h"
#include "ctl/check/ConfigurationTexts.h"
#include "ctl/check/ElementRules.h"
#include "ctl/check/Findings.h"
#include "ctl/check/HostReading.h"

#include <map>

namespace {

using Content = KnownElement::Content;

std::string tagOf(const xmlNode* element) { return "<" + nameOf(element) + ">"; }

std::string kindOf(const xmlNode* node)
{
    switch (node->type) {
    case XML_COMMENT_NODE:
        return "comment";
    case XML_PI_NODE:
        return "processing instruction";
    case XML_ENTITY_REF_NODE:
        return "entity '" + nameOf(node) + "'";
    case XML_CDATA_SECTION_NODE:
        return "CDATA section";
    case XML_ELEMENT_NODE:
        return "element " + tagOf(node);
    default:
        return "text";
    }
}

bool isText(const xmlNode* node) { return node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE; }

/// Whether the node adds nothing to a value, so that nobody misses it.
bool isNothing(const xmlNode* node)
{
    return node->type == XML_COMMENT_NODE || node->type == XML_PI_NODE || xmlIsBlankNode(node) != 0;
}

void checkEnd(const xmlNode* element, const FindingsAbout& found)
{
    const xmlNode* rest = element->children->next;
    while (rest != nullptr && isNothing(rest))
        rest = rest->next;
    if (rest != nullptr)
        found.warn(lineOf(element),
            "The value of " + tagOf(element) + " ends before the " + kindOf(element->children->next)
                + " in it: the daemon reads '" + excerpt(elementText(element)) + "'",
            "Write the whole value as one text");
}

void checkBlanks(const xmlNode* element, const FindingsAbout& found)
{
    const std::string text = elementText(element);
    const std::string around = std::string(1, text.empty() ? 'x' : text.front()) + (text.empty() ? 'x' : text.back());
    if (around.find_first_of(blanks) != std::string::npos)
        found.warn(lineOf(element),
            "The value of " + tagOf(element) + " has blanks or line ends around it, which belong to it: '" + text + "'",
            "Write the value without them, between the tags on one line");
}

void checkValue(const xmlNode* element, bool isSetting, const FindingsAbout& found)
{
    const xmlNode* const first = element->children;
    if (first == nullptr) {
        found.warn(
            lineOf(element), tagOf(element) + " is empty, which counts as absent", "Give it a value, or remove it");
        return;
    }
    const char* const text = elementText(element);
    if (text == nullptr) {
        found.warn(lineOf(element),
            tagOf(element) + " begins with the " + kindOf(first) + ", so it has no text and counts as absent",
            "Write its value as text");
        return;
    }
    if (isText(first))
        checkEnd(element, found);
    else
        found.warn(lineOf(element),
            "The " + kindOf(first) + " takes the place of the value of " + tagOf(element) + ": the daemon reads '"
                + excerpt(text) + "'",
            "Write the value as text, and comments outside");
    if (!isSetting)
        checkBlanks(element, found);
}

class Values {
public:
    explicit Values(const FindingsAbout& findings)
        : found(findings)
    {
    }

    void visit(const xmlNode* element)
    {
        const KnownElement* const known = findKnownElement(nameOf(element));
        const bool isSetting = known != nullptr && known->content == Content::setting;
        if (isSetting || (known != nullptr && known->content == Content::value && isElementOfVolume(element)))
            checkValue(element, isSetting, found);
        if (isSetting && elementText(element) != nullptr)
            checkSecondSetting(element);
        if (isElement(element, "Volume")) {
            checkSecondRoot(element);
            checkSecondName(element);
        }
        for (const xmlNode* child = element->children; child != nullptr; child = child->next) {
            if (child->type == XML_ELEMENT_NODE)
                visit(child);
        }
    }

private:
    /// Name, Root and Path mean nothing elsewhere, and the reader is told of that.
    static bool isElementOfVolume(const xmlNode* element)
    {
        const bool isInList = isElement(element->parent, "CrawlPaths") || isElement(element->parent, "ExcludePaths");
        return isElement(element, "Path") ? isInList : isElement(element->parent, "Volume");
    }

    void checkSecondSetting(const xmlNode* element)
    {
        int& line = lines[nameOf(element)];
        if (line != 0)
            found.warn(lineOf(element),
                tagOf(element) + " stands a second time, after line " + std::to_string(line)
                    + ". This one counts, not the earlier",
                "Remove one of them");
        line = lineOf(element);
    }

    void checkSecondRoot(const xmlNode* volume) const
    {
        int line = 0;
        for (const xmlNode* child = volume->children; child != nullptr; child = child->next) {
            if (!isElement(child, "Root") || elementText(child) == nullptr)
                continue;
            if (line != 0)
                found.warn(lineOf(child),
                    "<Root> stands a second time in its volume, after line " + std::to_string(line)
                        + ". This one counts, not the earlier",
                    "Give each <Root> a <Volume> of its own, or remove one of them");
            line = lineOf(child);
        }
    }

    void checkSecondName(const xmlNode* volume) const
    {
        int line = 0;
        for (const xmlNode* child = volume->children; child != nullptr; child = child->next) {
            if (!isElement(child, "Name"))
                continue;
            if (line != 0)
                found.warn(lineOf(child),
                    "<Name> stands a second time in its volume, after line " + std::to_string(line)
                        + ". The first one counts, not this one",
                    "Give each <Name> a <Volume> of its own, or remove one of them");
            else
                line = lineOf(child);
        }
    }

    const FindingsAbout& found;
    std::map<std::string, int> lines; ///< of the last setting of each name
};

} // namespace

void checkValues(const xmlNode* rootElement, const FindingsAbout& found)
{
    if (rootElement != nullptr)
        Values(found).visit(rootElement);
}
