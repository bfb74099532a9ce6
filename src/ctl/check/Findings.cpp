#include "ctl/check/Findings.h"

#include <algorithm>

static constexpr std::size_t mostWarnings = 1000;

void Findings::add(const Finding& finding)
{
    refused = refused || finding.kind == Finding::Kind::refusal;
    // Refusals are few, and one behind many warnings is still to be seen.
    if (finding.kind == Finding::Kind::warning && kept.size() >= mostWarnings)
        ++dropped;
    else
        kept.push_back(finding);
}

void Findings::sortByLine()
{
    const auto isBefore = [](const Finding& one, const Finding& other) {
        return one.kind != other.kind ? one.kind == Finding::Kind::refusal : one.line < other.line;
    };
    std::stable_sort(kept.begin(), kept.end(), isBefore);
}

void Findings::clear() { *this = Findings(); }

FindingsAbout::FindingsAbout(Findings& findings, const std::string& subject)
    : all(findings)
    , about(subject)
{
}

void FindingsAbout::refuse(int line, const std::string& reason, const std::string& remedy) const
{
    all.add({ Finding::Kind::refusal, about, line, reason, remedy });
}

void FindingsAbout::leaveUnchecked(const std::string& reason, const std::string& remedy) const
{
    all.add({ Finding::Kind::unchecked, about, 0, reason, remedy });
}

void FindingsAbout::warn(int line, const std::string& reason, const std::string& remedy) const
{
    all.add({ Finding::Kind::warning, about, line, reason, remedy });
}
