#pragma once

#include <set>

class ChangesRun;
class ChangeWatch;
class LineOutput;

/// Lists changes as they come, until SIGTERM or SIGINT.
class ChangesFollower {
public:
    /// Lists what there is and what comes. Returns the exit status. Throws a Problem when the output or the cursor's
    /// file fails, or nobody reads the output any more.
    static int follow(ChangesRun& run);

private:
    ChangesFollower(ChangesRun& run, ChangeWatch& watch, LineOutput& output, int stop);
    void followUntilStopped();
    std::set<std::size_t> waitForChanges();
    std::set<std::size_t> waitOnce(int milliseconds);
    int patience() const;

    ChangesRun& changes;
    ChangeWatch& watching;
    LineOutput& lines;
    const int stopDescriptor;
};
