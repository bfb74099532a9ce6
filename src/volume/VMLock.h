#pragma once

#include <semaphore.h>

/// Holds a volume's semaphore for a scope. Every thread that works on the volume's catalogue takes it, through
/// FairLock: a walk for one folder at a time and for each removal of a former start folder, a change handler around its
/// catalogue work, a purge for its whole length. Not recursive: walk(path, isRootWalk) takes it, so it is called
/// without it.
class VMLock {
public:
    /// Waits for the semaphore. A wait that a signal interrupts is not repeated, so no handler may run here: the
    /// daemon's threads have the signals blocked that it handles.
    explicit VMLock(sem_t* sem);
    virtual ~VMLock();
    VMLock(const VMLock&) = delete;
    VMLock& operator=(const VMLock&) = delete;

private:
    sem_t* semaphore;
};
