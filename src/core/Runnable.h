#pragma once

/// An object that owns one worker thread. Implementations start it through a static `start_thread(void* self)`.
class Runnable {
public:
    virtual void start() = 0;
    /// Ends the thread and returns when it has ended.
    virtual void stop() = 0;
    /// False once stop() was called; true before start() as well.
    virtual bool isRunning() = 0;
    /// The body of the thread.
    virtual void run() = 0;
    virtual ~Runnable();
};
