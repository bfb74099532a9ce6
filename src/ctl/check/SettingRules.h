#pragma once

class FindingsAbout;
struct HostReading;

/// Says why the daemon refuses this configuration, when it does: each thing that is missing or 0.
void checkRequirements(const HostReading& reading, const FindingsAbout& found);

/// Warns of settings that the daemon takes for something else than they say.
void checkSettings(const HostReading& reading, const FindingsAbout& found);
