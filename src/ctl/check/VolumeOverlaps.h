#pragma once

class FindingsAbout;
struct HostReading;

/// Warns of volumes that share a root, and of those of which one catalogues what belongs to another.
void checkOverlaps(const HostReading& reading, const FindingsAbout& found);
