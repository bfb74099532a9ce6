#pragma once

#include <semaphore.h>

/// The process-wide semaphore that wakes the purge thread. It counts: every notify() lets one wait() return.
class SignalObject {
public:
    /// The semaphore of the process. The first call makes it: on the main thread, before other threads exist.
    static SignalObject* getInstance();

    /// The count starts at 1 on purpose: the purge thread's first wait() returns at once, so that it looks for due
    /// purges when it starts.
    SignalObject();
    virtual ~SignalObject();
    SignalObject(const SignalObject&) = delete;
    SignalObject& operator=(const SignalObject&) = delete;

    /// Adds 1 to the count. Returns the result of sem_post(). Any thread.
    int notify();
    /// Waits until the count is above 0 and takes 1 from it. Returns the result of sem_wait(): not 0 when a signal
    /// interrupted the wait. Any thread.
    int wait();

private:
    static SignalObject* instance;
    sem_t semaphore;
};
