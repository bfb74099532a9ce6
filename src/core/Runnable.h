#pragma once

/// An object that owns one worker thread. start() and stop() are called on the main thread. Implementations start the
/// thread through a static `start_thread(void* self)`.
class Runnable {
public:
    /// Starts the thread.
    virtual void start() = 0;
    /// Ends the thread and returns when it has ended.
    virtual void stop() = 0;
    /// Whether no stop is requested: true before start() as well, false from stop() on. Any thread.
    virtual bool isRunning() = 0;
    /// The body of the thread, called by nobody else. Blocks all signals and ends the thread.
    virtual void run() = 0;
    virtual ~Runnable();
};
