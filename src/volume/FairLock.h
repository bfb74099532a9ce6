#pragma once

#include "volume/VMLock.h"

#include <mutex>

/// Holds a volume's semaphore for a scope, as VMLock does. No thread gets it back while another waits inside the door.
/// A semaphore alone does not see to that: a walk that gives it up between two folders has it again before a waiting
/// thread has woken up.
///
/// The thread whose turn is next waits for the semaphore inside the door, all others wait outside, in no certain order.
/// So every thread that takes the semaphore has to go through the door.
class FairLock {
public:
    FairLock(std::mutex& door, sem_t* sem);
    FairLock(const FairLock&) = delete;
    FairLock& operator=(const FairLock&) = delete;

private:
    const VMLock held;
};
