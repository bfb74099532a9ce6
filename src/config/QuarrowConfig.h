#pragma once

#include "classify/CategoryMapper.h"

#include <list>
#include <map>
#include <string>

struct _xmlNode; // NOLINT(bugprone-reserved-identifier): the name is libxml2's

/// The host configuration: which volumes to catalogue, which parts of them, and the thresholds. It is loaded on the
/// main thread before any other thread starts and is only read afterwards. So it needs no lock, and any thread may read
/// it.
class QuarrowConfig {
public:
    /// The configuration of the process. The first call makes it: on the main thread, before other threads exist.
    static QuarrowConfig* getInstance();

    /// Fixes the file's path: the value of QUARROW_CONFIG_FILE when that is set, an empty one too, else the appliance's
    /// default.
    QuarrowConfig();

    /// Reads the file. False when it cannot be parsed, which is logged. False, without a log line, when it lacks
    /// something that the daemon needs: a version, a purge threshold other than 0, a last_updated_time other than 0, a
    /// volume.
    bool load();

    const std::string& getConfigFilePath() const;
    /// How many seconds a deleted row is kept at least.
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
    bool enabled = false;                   ///< read from the file, but nothing asks for it
    int lastUpdatedTime = 0;                ///< seconds since the epoch
    int purgeThreshold = 60 * 24 * 60 * 60; ///< seconds
    int rewalkThreshold = 4 * 60 * 60;      ///< seconds; read from the file, but nothing asks for it
    oru::db::CategoryMapper categoryMapper; ///< built here so that the MIME table is loaded before the threads start
    std::map<std::string, std::string> volumes;
    std::multimap<std::string, std::string> crawlPaths;
    std::multimap<std::string, std::string> excludePaths;
    std::string configFilePath;
};
