#pragma once

#include "ctl/HostConfiguration.h"
#include "ctl/changes/VolumePosition.h"

#include <optional>
#include <string>

class Catalogue;
class LineOutput;
struct RestartReason;

/// Reads the changes of one volume's catalogue, in one transaction. The catalogue is open only while that takes, so
/// that the volume can be unmounted, and a catalogue that was replaced is found.
class VolumeChanges {
public:
    /// What to do with a volume whose position cannot be continued.
    enum class Restart {
        refuse, ///< say so, and leave the volume out
        list,   ///< say so, and list all rows
    };
    struct Outcome {
        VolumePosition position;      ///< where to go on
        bool isRestartNeeded = false; ///< and nothing was listed
        bool hasPrinted = false;
    };

    /// `purgeThreshold` is the daemon's, in seconds.
    VolumeChanges(ConfiguredVolume volume, long long purgeThreshold);

    const ConfiguredVolume& volume() const { return configured; }

    /// Lists the rows that were written since the position; all of them without one. Throws a Problem when the
    /// catalogue cannot be read, and what the output throws.
    Outcome read(const VolumePosition* since, Restart restart, LineOutput& output) const;

private:
    struct Reading;
    long long shortestThreshold(const VolumePosition& since) const;
    void listAll(Reading& reading) const;
    void listSince(Reading& reading, const VolumePosition& since) const;
    void sayRestart(Reading& reading, const RestartReason& reason, const std::string& remedy) const;

    const ConfiguredVolume configured;
    const long long threshold;
};
