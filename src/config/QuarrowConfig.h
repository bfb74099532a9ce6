#pragma once

#include "classify/CategoryMapper.h"

#include <list>
#include <map>
#include <string>

struct _xmlNode; // NOLINT(bugprone-reserved-identifier): the name is libxml2's

/// The host configuration: which volumes to catalogue, what of them, and the thresholds.
/// Loaded on the main thread before any other thread starts and only read afterwards, hence no lock.
class QuarrowConfig {
public:
    /// The configuration of the process. First called on the main thread, before other threads exist.
    static QuarrowConfig* getInstance();

    /// Fixes the file's path: QUARROW_CONFIG_FILE when it is set, even to nothing, else the appliance's default.
    QuarrowConfig();

    /// Reads the file. False when it cannot be parsed (logged) or lacks something that the daemon needs (not logged):
    /// a version, a purge threshold other than 0, a last update stamp other than 0, at least one volume.
    bool load();

    /// Seconds that a deleted row is kept.
    int getPurgeThreshold() const;
    /// Volume name -> root path, as written in the file.
    const std::map<std::string, std::string>& getQuarrowVolumes() const;
    /// Appends the volume's crawl paths to `out` in file order, relative to the volume's root.
    void getCrawlPaths(const std::string& volumeName, std::list<std::string>& out);
    /// Appends the volume's exclude strings to `out` in file order.
    void getExcludePaths(const std::string& volumeName, std::list<std::string>& out);

private:
    void readTree(const _xmlNode* node);
    void readElement(const _xmlNode* element);

    static QuarrowConfig* instance;

    std::string version;
    bool enabled = false;                   ///< stored for the file's sake: nothing asks for it
    int lastUpdatedTime = 0;                ///< seconds since the epoch
    int purgeThreshold = 60 * 24 * 60 * 60; ///< seconds
    int rewalkThreshold = 4 * 60 * 60;      ///< seconds; stored for the file's sake: nothing asks for it
    oru::db::CategoryMapper categoryMapper; ///< built here so that the MIME table is loaded before the threads start
    std::map<std::string, std::string> volumes;
    std::multimap<std::string, std::string> crawlPaths;
    std::multimap<std::string, std::string> excludePaths;
    std::string configFilePath;
};
