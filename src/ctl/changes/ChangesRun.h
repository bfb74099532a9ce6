#pragma once

#include "ctl/changes/ChangeCursor.h"
#include "ctl/changes/CursorFile.h"
#include "ctl/changes/VolumeChanges.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

class LineOutput;

/// What `quarrowctl changes` exits with beside what all commands do.
constexpr int exitRestartNeeded = 3; ///< of some volume the changes cannot be told; the rest was done

/// The changes of several volumes and the cursor through them.
class ChangesRun {
public:
    /// `file`: where the cursor is to be stored, if anywhere.
    ChangesRun(std::vector<VolumeChanges> volumes, ChangeCursor cursor, std::optional<CursorFile> file);

    std::size_t volumeCount() const { return volumes.size(); }
    std::vector<std::string> cataloguePaths() const;

    /// The next reading of each volume is a full listing.
    void forgetPositions();

    /// Lists the changes of one volume. Says on standard error when its catalogue cannot be read, unless that was said
    /// already; the position then stays. Throws what the output throws.
    void read(std::size_t volume, VolumeChanges::Restart restart, LineOutput& output);

    /// Whether anything was listed since the cursor was printed, or it was never printed.
    bool hasNews() const { return isPrintDue; }
    /// Whether a reading has moved the cursor since it was printed, be it without a row.
    bool hasMoved() const;
    /// Prints the cursor, waits until all output is written, and stores it. Throws a Problem.
    void printCursor(LineOutput& output);

    /// Whether the volume's catalogue is there but could not be read at the last try.
    bool isInTrouble(std::size_t volume) const;
    /// Of the last readings of all volumes.
    int exitStatus() const;

private:
    const std::vector<VolumeChanges> volumes;
    const std::optional<CursorFile> cursorFile;
    ChangeCursor cursor;
    std::string printed; ///< the cursor's text
    bool isPrintDue = true;
    std::map<std::size_t, std::string> problems; ///< what is wrong with a volume, as it was said
    bool wasRestartNeeded = false;
};
