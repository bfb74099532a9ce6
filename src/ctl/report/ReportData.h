#pragma once

#include <cstddef>
#include <string>
#include <vector>

class VolumeSummary;
struct ConfiguredVolume;

/// Collects what the page shows as one JSON document. Names appear as visible() has them.
class ReportData {
public:
    ReportData();
    ~ReportData();
    ReportData(const ReportData&) = delete;
    ReportData& operator=(const ReportData&) = delete;

    /// With at most `folderLimit` folders.
    void add(const ConfiguredVolume& volume, const VolumeSummary& summary, std::size_t folderLimit);
    /// A volume that could not be read, and why.
    void addBroken(const ConfiguredVolume& volume, const std::string& problem);

    /// `made`: when the report was made, in seconds since 1970.
    std::string text(long long made) const;

private:
    std::vector<std::string> volumes; ///< the JSON of each: a document of all would take several times the memory
};
