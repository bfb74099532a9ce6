#pragma once

class Findings;
struct HostReading;
struct Machine;

/// Warns of what the machine lacks for these volumes: inotify watches and instances, a MIME table. Also of a daemon in
/// standby. Counts the folders in the catalogues that can be read.
void checkMachine(const Machine& machine, const HostReading& reading, Findings& findings);
