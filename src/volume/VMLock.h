#pragma once

#include <semaphore.h>

/// Holds a volume's semaphore for a scope. Whoever works on a volume's catalogue takes it, through FairLock: the walk
/// for one folder at a time, each change handler around its catalogue work, the purge. Not recursive: walk(path,
/// isRootWalk) is called without it.
class VMLock {
public:
    /// Waits for the semaphore; a wait that a signal interrupts is not repeated.
    explicit VMLock(sem_t* sem);
    virtual ~VMLock();
    VMLock(const VMLock&) = delete;
    VMLock& operator=(const VMLock&) = delete;

private:
    sem_t* semaphore;
};
