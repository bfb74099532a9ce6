#pragma once

#include "volume/VMLock.h"

#include <mutex>

/// Holds a volume's semaphore for a scope, as VMLock does, and lets waiting threads have their turn. With the semaphore
/// alone, a walk that posts it between two folders would have it again before a waiting thread has woken up.
///
/// The door is a mutex. The thread whose turn is next holds the door while it waits for the semaphore; all others wait
/// for the door, in no certain order. So every thread that takes the semaphore must do so through this class.
class FairLock {
public:
    /// Waits for the door, then for the semaphore, and opens the door again. Not recursive, see VMLock.
    FairLock(std::mutex& door, sem_t* sem);
    FairLock(const FairLock&) = delete;
    FairLock& operator=(const FairLock&) = delete;

private:
    const VMLock held;
};
