#pragma once

class FindingsAbout;
struct HostReading;

/// Warns of crawl paths that lead nowhere or twice to one place, of exclusions that leave out more or less than they
/// look, and of volumes that catalogue their own catalogue.
void checkPaths(const HostReading& reading, const FindingsAbout& found);
