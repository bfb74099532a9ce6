#include "ctl/check/CheckReport.h"

#include "ctl/Terminal.h"
#include "ctl/Text.h"
#include "ctl/check/ConfigurationCheck.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

using nlohmann::ordered_json;

namespace {

void printVolume(const VolumeReading& volume)
{
    fmt::print("Volume '{}'\n    root        {}\n", visible(volume.name),
        visible(volume.rootPath() + (volume.rootPath().empty() ? "/" : "")));
    if (volume.crawlPaths.empty())
        fmt::print("    crawl path  the whole volume\n");
    for (const TextAt& path : volume.crawlPaths)
        fmt::print("    crawl path  {}\n", path.text.empty() ? "the whole volume" : visible(path.text));
    for (const TextAt& path : volume.excludePaths)
        fmt::print("    exclusion   {}\n", visible(path.text));
}

struct Words {
    const char* forPeople;
    const char* inJson;
};

Words kindOf(const Finding& finding)
{
    switch (finding.kind) {
    case Finding::Kind::refusal:
        return { "refused", "refusal" };
    case Finding::Kind::unchecked:
        return { "not checked", "unchecked" };
    case Finding::Kind::warning:
        break;
    }
    return { "warning", "warning" };
}

std::string verdictOn(const ConfigurationCheck& check)
{
    using terminal::Colour;
    using terminal::coloured;
    if (!check.isChecked())
        return "This configuration was " + coloured("not checked", Colour::red);
    return "The daemon " + (check.isAccepted() ? coloured("accepts", Colour::green) : coloured("refuses", Colour::red))
        + " this configuration";
}

void printFinding(const Finding& finding)
{
    const std::string place
        = finding.line == 0 ? visible(finding.subject) : fmt::format("{}:{}", visible(finding.subject), finding.line);
    const terminal::Colour colour
        = finding.kind == Finding::Kind::warning ? terminal::Colour::yellow : terminal::Colour::red;
    const std::string remedy = visible(finding.remedy);
    fmt::print("{}: {}: {}. {}.\n", place, terminal::coloured(kindOf(finding).forPeople, colour),
        visible(finding.reason), remedy);
}

/// As the end of a sentence.
std::string numberOfWarnings(const Findings& findings)
{
    const std::size_t number = findings.list().size() + findings.omitted();
    if (number == 0)
        return "";
    return number == 1 ? ", with one warning"
                       : ", with " + withSeparators(static_cast<long long>(number)) + " warnings";
}

ordered_json textAt(const TextAt& text)
{
    ordered_json object;
    setBytes(object, "text", text.text);
    object["line"] = text.line;
    return object;
}

ordered_json jsonOf(const VolumeReading& volume)
{
    ordered_json object;
    setBytes(object, "name", volume.name);
    setBytes(object, "root", volume.rootPath().empty() ? "/" : volume.rootPath());
    object["line"] = volume.root.line;
    object["crawl_paths"] = ordered_json::array();
    for (const TextAt& path : volume.crawlPaths)
        object["crawl_paths"].push_back(textAt(path));
    object["exclusions"] = ordered_json::array();
    for (const TextAt& path : volume.excludePaths)
        object["exclusions"].push_back(textAt(path));
    return object;
}

ordered_json jsonOf(const Finding& finding)
{
    ordered_json object;
    object["kind"] = kindOf(finding).inJson;
    setBytes(object, "subject", finding.subject);
    if (finding.line != 0)
        object["line"] = finding.line;
    setBytes(object, "reason", finding.reason);
    setBytes(object, "remedy", finding.remedy);
    return object;
}

} // namespace

void printCheck(const ConfigurationCheck& check)
{
    if (check.isAccepted()) {
        for (const auto& [name, volume] : check.reading().volumes)
            printVolume(volume);
        fmt::print("Deleted rows are kept for {} seconds.\n", withSeparators(check.purgeThreshold()));
    }
    for (const Finding& finding : check.findings().list())
        printFinding(finding);
    if (check.findings().omitted() != 0)
        fmt::print(
            "There are {} further warnings.\n", withSeparators(static_cast<long long>(check.findings().omitted())));
    fmt::print("{}: {}{}.\n", check.path().empty() ? "''" : visible(check.path()), verdictOn(check),
        check.isAccepted() ? numberOfWarnings(check.findings()) : "");
}

void printCheckAsJson(const ConfigurationCheck& check)
{
    ordered_json object;
    setBytes(object, "configuration", check.path());
    object["accepted"] = check.isChecked() ? ordered_json(check.isAccepted()) : ordered_json();
    if (check.isAccepted()) {
        object["purge_threshold"] = check.purgeThreshold();
        object["volumes"] = ordered_json::array();
        for (const auto& [name, volume] : check.reading().volumes)
            object["volumes"].push_back(jsonOf(volume));
    }
    object["findings"] = ordered_json::array();
    for (const Finding& finding : check.findings().list())
        object["findings"].push_back(jsonOf(finding));
    object["findings_omitted"] = check.findings().omitted();
    fmt::print("{}\n", jsonText(object, 2));
}
