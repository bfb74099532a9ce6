#pragma once

#include <atomic>
#include <string>

/// The state file of one volume: when its catalogue was last updated and when deleted rows were last purged. An object
/// belongs to one volume manager, which makes and deletes it while no other thread uses it.
class VolumeManagerConfig {
public:
    /// Loads the file, or makes it when there is none. When it cannot be made, the times are 0. Throws a bare
    /// `const char*` when an existing file cannot be parsed or is behind another user's link: that is no
    /// std::exception, so callers catch both.
    explicit VolumeManagerConfig(const std::string& path);
    virtual ~VolumeManagerConfig();

    /// The time that was recorded last, in seconds since the epoch; 0 when none was. Any thread, without a lock.
    int getLastPurgeTime();

    /// Records `t` (seconds since the epoch) as the purge time and the present as the update time, and replaces the
    /// file as a whole. The caller holds the volume's lock. Does nothing when the file is gone. When the file cannot be
    /// replaced, it stays as it was, and the new time counts until the next start. Throws a bare `const char*` when the
    /// file cannot be parsed.
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
