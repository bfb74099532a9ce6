#pragma once

#include <atomic>
#include <string>

/// The state file of one volume: when its catalogue was last updated and when deleted rows were last purged.
/// An object belongs to one volume manager, which writes it under its own lock; the times may be read on any thread.
class VolumeManagerConfig {
public:
    /// Loads the file, or makes it when there is none; a file that cannot be made leaves the initial values.
    /// Throws a bare `const char*` when an existing file cannot be parsed: not a std::exception, callers catch both.
    explicit VolumeManagerConfig(const std::string& path);
    virtual ~VolumeManagerConfig();

    /// Seconds since the epoch, 0 when nothing was ever purged. Any thread.
    int getLastPurgeTime();

    /// Records a purge at `t` (seconds since the epoch), stamps the update time and rewrites the file as a whole.
    /// Does nothing when the file has gone. Throws a bare `const char*` when it cannot be parsed.
    void setLastPurgeTime(int t);

private:
    void load();
    void create() const;
    std::string updatedDocument(int t);
    void rewrite(int t);

    std::atomic<int> lastUpdatedTime = 0; ///< seconds since the epoch
    std::atomic<int> lastPurgeTime = 0;   ///< seconds since the epoch
    std::string version = "1.0";
    std::string filePath;
};
