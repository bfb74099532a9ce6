#include "ctl/check/HostReading.h"

#include "config/XmlDocument.h"

#include <algorithm>

namespace {

std::string withoutTrailingSlash(const std::string& path)
{
    return !path.empty() && path.back() == '/' ? path.substr(0, path.length() - 1) : path;
}

class Reader {
public:
    explicit Reader(HostReading& target)
        : reading(target)
    {
    }

    /// An element, and those below it, in the order of the file. The parser bounds the depth.
    void visit(const xmlNode* element)
    {
        if (isElement(element, "Volume"))
            beginVolume(element);
        if (const char* text = elementText(element))
            take(element, { text, lineOf(element) });
        for (const xmlNode* child = element->children; child != nullptr; child = child->next) {
            if (child->type == XML_ELEMENT_NODE)
                visit(child);
        }
    }

    void finish()
    {
        for (auto volume = reading.volumes.begin(); volume != reading.volumes.end();)
            volume = volume->second.root.line == 0 ? reading.volumes.erase(volume) : std::next(volume);
    }

private:
    void beginVolume(const xmlNode* element)
    {
        places[element] = reading.volumeElements.size();
        reading.volumeElements.push_back({ lineOf(element), nameOfVolume(element).text, false });
    }

    void take(const xmlNode* element, const TextAt& value)
    {
        const std::map<std::string, TextAt*> settings = {
            { "Version", &reading.version },
            { "last_updated_time", &reading.lastUpdatedTime },
            { "purge_threshold", &reading.purgeThreshold },
            { "rewalk_threshold", &reading.rewalkThreshold },
            { "quarrow_enabled", &reading.enabled },
        };
        const auto setting = settings.find(nameOf(element));
        if (setting != settings.end())
            *setting->second = value;
        else if (isElement(element, "Root"))
            takeRoot(element->parent, value);
        else if (isElement(element, "Path"))
            takePath(element->parent, { withoutTrailingSlash(value.text), value.line });
    }

    void takeRoot(const xmlNode* parent, const TextAt& value)
    {
        if (!isElement(parent, "Volume") || !isElement(parent->parent, "Volumes"))
            return;
        reading.volumeElements[places[parent]].hasRoot = true;
        volumeOf(parent).root = value;
    }

    void takePath(const xmlNode* parent, const TextAt& value)
    {
        const bool isCrawlPath = isElement(parent, "CrawlPaths");
        if ((!isCrawlPath && !isElement(parent, "ExcludePaths")) || !isElement(parent->parent, "Volume"))
            return;
        VolumeReading& volume = volumeOf(parent->parent);
        (isCrawlPath ? volume.crawlPaths : volume.excludePaths).push_back(value);
    }

    VolumeReading& volumeOf(const xmlNode* element)
    {
        const std::string& name = reading.volumeElements[places[element]].name;
        VolumeReading& volume = reading.volumes[name];
        volume.name = name;
        return volume;
    }

    HostReading& reading;
    std::map<const xmlNode*, std::size_t> places; ///< of the Volume elements in the reading
};

} // namespace

std::string VolumeReading::rootPath() const { return withoutTrailingSlash(root.text); }

std::vector<TextAt> VolumeReading::startFolders() const
{
    if (crawlPaths.empty())
        return { { rootPath(), root.line } };
    std::vector<TextAt> folders;
    for (const TextAt& path : crawlPaths)
        folders.push_back({ rootPath() + path.text, path.line });
    return folders;
}

bool VolumeReading::leavesOut(const std::string& path) const
{
    return std::any_of(excludePaths.begin(), excludePaths.end(),
        [&path](const TextAt& exclusion) { return ::leavesOut(exclusion.text, path); });
}

bool leavesOut(const std::string& exclusion, const std::string& path)
{
    // Longer, not as long: a folder that the text names in full is catalogued itself.
    return path.length() > exclusion.length() && path.find(exclusion) != std::string::npos;
}

HostReading::HostReading(const xmlNode* rootElement)
{
    if (rootElement == nullptr)
        return;
    Reader reader(*this);
    reader.visit(rootElement);
    reader.finish();
}

int lineOf(const xmlNode* element) { return static_cast<int>(xmlGetLineNo(element)); }

std::string nameOf(const xmlNode* element) { return reinterpret_cast<const char*>(element->name); }

TextAt nameOfVolume(const xmlNode* volume)
{
    for (const xmlNode* child = volume->children; child != nullptr; child = child->next) {
        if (isElement(child, "Name")) {
            const char* text = elementText(child);
            return { text != nullptr ? text : "", lineOf(child) };
        }
    }
    return {};
}
