#pragma once

#include <chrono>
#include <string>

/// A line on the terminal that says what takes so long, with a bar where it is known how much is done. It appears after
/// a moment only and is gone with the object. Nothing is shown where standard output is no terminal.
class ActivityLine {
public:
    ActivityLine();
    ~ActivityLine();
    ActivityLine(const ActivityLine&) = delete;
    ActivityLine& operator=(const ActivityLine&) = delete;

    /// `done`: from 0 to 1; negative when it is not known. As often as one likes.
    void show(const std::string& step, double done);

private:
    using Clock = std::chrono::steady_clock;

    const bool isTerminal;
    const Clock::time_point start;
    Clock::time_point lastShown;
    bool isShown = false;
};
