#pragma once

#include "ctl/check/Findings.h"
#include "ctl/check/HostReading.h"

#include <string>

class ParserMessages;
struct Machine;

/// Finds out what the daemon would make of a host configuration. The daemon's own class decides whether it is accepted.
/// A reading of the same file by other code explains that, with line numbers. Writes nothing anywhere. Main thread.
class ConfigurationCheck {
public:
    /// Checks the file that the daemon's class finds by the environment.
    explicit ConfigurationCheck(const Machine& machine);

    const std::string& path() const { return file; }
    bool isAccepted() const { return accepted; }
    /// False when the file was not read, because it is no regular file, or not consistently. Nothing is accepted then.
    bool isChecked() const { return checked; }
    /// False when the daemon's class and the reading differ: the file was changed between them. Nothing is accepted
    /// then.
    bool isConsistent() const { return consistent; }
    /// Why it is refused or was not checked, and warnings.
    const Findings& findings() const { return all; }
    /// What the daemon would use. Only with an accepted configuration.
    const HostReading& reading() const { return read; }
    int purgeThreshold() const { return threshold; }

private:
    void explain();
    void refuseUnparsed(const ParserMessages& messages, const FindingsAbout& found);

    std::string file;
    bool accepted = false;
    bool checked = true;
    bool consistent = true;
    int threshold = 0;
    HostReading read = HostReading(nullptr);
    Findings all;
};
