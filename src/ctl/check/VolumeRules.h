#pragma once

class FindingsAbout;
struct HostReading;

/// Warns of volumes that the daemon does not have, or has otherwise than the file looks: without a root or a name, with
/// one name for two, with a root that is missing or odd.
void checkVolumes(const HostReading& reading, const FindingsAbout& found);
