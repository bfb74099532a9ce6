#include "config/QuarrowConfig.h"

#include "config/XmlDocument.h"

#include <syslog.h>

#include <cstdlib>

QuarrowConfig* QuarrowConfig::instance = nullptr;

namespace {

std::string configFileFromEnvironment()
{
    const char* path = std::getenv("QUARROW_CONFIG_FILE");
    return path != nullptr ? path : "/CacheVolume/.quarrow/quarrow-host.xml";
}

/// The text of the first Name in a Volume, wherever it stands among its siblings; empty when there is none.
std::string volumeName(const xmlNode* volume)
{
    for (const xmlNode* child = volume->children; child != nullptr; child = child->next) {
        if (isElement(child, "Name")) {
            const char* text = elementText(child);
            return text != nullptr ? text : "";
        }
    }
    return std::string();
}

std::string withoutTrailingSlash(std::string path)
{
    if (!path.empty() && path.back() == '/')
        path.pop_back();
    return path;
}

void appendPathsOf(
    const std::multimap<std::string, std::string>& paths, const std::string& volumeName, std::list<std::string>& out)
{
    const auto range = paths.equal_range(volumeName);
    for (auto entry = range.first; entry != range.second; ++entry)
        out.push_back(entry->second);
}

} // namespace

QuarrowConfig* QuarrowConfig::getInstance()
{
    if (instance == nullptr)
        instance = new QuarrowConfig;
    return instance;
}

QuarrowConfig::QuarrowConfig()
    : configFilePath(configFileFromEnvironment())
{
}

bool QuarrowConfig::load()
{
    const XmlDocument document(configFilePath, XmlDocument::trusted);
    if (!document.isParsed()) {
        syslog(LOG_LOCAL5 | LOG_ERR, "Could not parse the config xml\n");
        return false;
    }
    readTree(document.root());
    return !version.empty() && purgeThreshold != 0 && lastUpdatedTime != 0 && !volumes.empty();
}

const std::string& QuarrowConfig::getConfigFilePath() const { return configFilePath; }

int QuarrowConfig::getPurgeThreshold() const { return purgeThreshold; }

const std::map<std::string, std::string>& QuarrowConfig::getQuarrowVolumes() const { return volumes; }

void QuarrowConfig::getCrawlPaths(const std::string& volumeName, std::list<std::string>& out)
{
    appendPathsOf(crawlPaths, volumeName, out);
}

void QuarrowConfig::getExcludePaths(const std::string& volumeName, std::list<std::string>& out)
{
    appendPathsOf(excludePaths, volumeName, out);
}

/// Visits a node, its children and its following siblings, depth first; the parser bounds the depth. Nodes inside an
/// entity are not visited: they belong to the declaration, and following their siblings may never end.
void QuarrowConfig::readTree(const xmlNode* node)
{
    for (; node != nullptr; node = node->next) {
        if (node->type != XML_ELEMENT_NODE)
            continue;
        readElement(node);
        readTree(node->children);
    }
}

void QuarrowConfig::readElement(const xmlNode* element)
{
    const char* text = elementText(element);
    if (text == nullptr)
        return;

    if (isElement(element, "Version"))
        version = text;
    else if (isElement(element, "last_updated_time"))
        lastUpdatedTime = numberIn(text);
    else if (isElement(element, "quarrow_enabled"))
        enabled = std::string(text) == "true";
    else if (isElement(element, "purge_threshold"))
        purgeThreshold = numberIn(text);
    else if (isElement(element, "rewalk_threshold"))
        rewalkThreshold = numberIn(text);

    const xmlNode* parent = element->parent;
    const xmlNode* grandparent = parent != nullptr ? parent->parent : nullptr;
    if (parent == nullptr || grandparent == nullptr)
        return;
    if (isElement(element, "Root") && isElement(parent, "Volume") && isElement(grandparent, "Volumes"))
        volumes[volumeName(parent)] = text;
    else if (isElement(element, "Path") && isElement(parent, "CrawlPaths") && isElement(grandparent, "Volume"))
        crawlPaths.insert({ volumeName(grandparent), withoutTrailingSlash(text) });
    else if (isElement(element, "Path") && isElement(parent, "ExcludePaths") && isElement(grandparent, "Volume"))
        excludePaths.insert({ volumeName(grandparent), withoutTrailingSlash(text) });
}
