#include "FuzzSupport.h"

#include "XmlReference.h"
#include "config/QuarrowConfig.h"

#include <cstdlib>

namespace {

using PathsOfVolume = std::map<std::string, std::list<std::string>>;

/// What a host configuration says, gathered element by element in document order.
struct ExpectedConfiguration {
    void take(const XmlReference::Element& element)
    {
        if (!element.text)
            return;
        const std::string& text = *element.text;
        const std::string name = element.ancestry(0);
        const std::string parent = element.ancestry(1);
        const std::string grandparent = element.ancestry(2);
        if (name == "Version")
            version = text;
        else if (name == "last_updated_time")
            lastUpdatedTime = std::atoi(text.c_str());
        else if (name == "purge_threshold")
            purgeThreshold = std::atoi(text.c_str());
        else if (name == "Root" && parent == "Volume" && grandparent == "Volumes")
            volumes[element.nameBeside(1)] = text;
        else if (name == "Path" && grandparent == "Volume" && (parent == "CrawlPaths" || parent == "ExcludePaths")) {
            const bool endsInSlash = !text.empty() && text[text.length() - 1] == '/';
            PathsOfVolume& paths = parent == "CrawlPaths" ? crawlPaths : excludePaths;
            paths[element.nameBeside(2)].push_back(endsInSlash ? text.substr(0, text.length() - 1) : text);
        }
    }

    bool isUsable() const
    {
        return !version.empty() && purgeThreshold != 0 && lastUpdatedTime != 0 && !volumes.empty();
    }

    std::string version;
    int lastUpdatedTime = 0;
    int purgeThreshold = 5184000;
    std::map<std::string, std::string> volumes;
    PathsOfVolume crawlPaths;
    PathsOfVolume excludePaths;
};

/// The lists of every volume that has one, `times` over; nothing for a volume that has none.
void requirePaths(QuarrowConfig& config, void (QuarrowConfig::*get)(const std::string&, std::list<std::string>&),
    const PathsOfVolume& expected, int times)
{
    for (const auto& [volume, paths] : expected) {
        std::list<std::string> wanted = { "already there" };
        for (int time = 0; time < times; ++time)
            wanted.insert(wanted.end(), paths.begin(), paths.end());
        std::list<std::string> got = { "already there" };
        (config.*get)(volume, got);
        REQUIRE(got == wanted);
    }
    std::list<std::string> ofNobody;
    if (expected.count("no such volume") == 0)
        (config.*get)("no such volume", ofNobody);
    REQUIRE(ofNobody.empty());
}

} // namespace

/// The bytes are the file.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const PrivateFolder folder;
    const std::string path = folder.path("quarrow-host.xml");
    setenv("QUARROW_CONFIG_FILE", path.c_str(), 1);
    folder.write("quarrow-host.xml", std::string(reinterpret_cast<const char*>(data), size));

    ExpectedConfiguration expected;
    bool isParsed;
    {
        const XmlReference reference = XmlReference::ofFile(path);
        isParsed = reference.isParsed();
        for (const XmlReference::Element& element : reference.elements())
            expected.take(element);
    }

    XmlLoads loads;
    QuarrowConfig config;
    for (int times = 1; times <= 2; ++times) { // nothing forgets what an earlier load found
        REQUIRE(config.load() == (isParsed && expected.isUsable()));
        REQUIRE(takeLog()
            == (isParsed ? std::vector<std::string>()
                         : std::vector<std::string> { "3 Could not parse the config xml\n" }));
        REQUIRE(config.getPurgeThreshold() == expected.purgeThreshold);
        REQUIRE(config.getQuarrowVolumes() == expected.volumes);
        requirePaths(config, &QuarrowConfig::getCrawlPaths, expected.crawlPaths, times);
        requirePaths(config, &QuarrowConfig::getExcludePaths, expected.excludePaths, times);
    }
    // Whatever it refers to, no other file is read.
    REQUIRE(loads.urls() == std::vector<std::string>({ path, path }));
    return 0;
}
