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
    std::set<std::size_t> inTrouble() const;

    ChangesRun& changes;
    ChangeWatch& watching;
    LineOutput& lines;
    const int stopDescriptor;
    std::set<std::size_t> toLookAtAgain; ///< what was read because something had changed
    int retryPause;                      ///< milliseconds until what is in trouble is tried again
};
