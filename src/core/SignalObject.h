#pragma once

#include <semaphore.h>

/// The process-wide semaphore that wakes the purge thread. It counts: every notify() lets one wait() return.
class SignalObject {
public:
    /// First called on the main thread before other threads exist.
    static SignalObject* getInstance();

    /// The count starts at 1, so that the first wait() returns at once: the purge thread looks round when it starts.
    SignalObject();
    virtual ~SignalObject();
    SignalObject(const SignalObject&) = delete;
    SignalObject& operator=(const SignalObject&) = delete;

    /// The result of sem_post().
    int notify();
    /// The result of sem_wait(): not 0 when a signal interrupted it.
    int wait();

private:
    static SignalObject* instance;
    sem_t semaphore;
};
