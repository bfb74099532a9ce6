#pragma once

#include <dirent.h>
#include <pthread.h>
#include <semaphore.h>

#include <functional>
#include <string>

struct sqlite3;

// This test program has a version of its own of a few calls, which do what the system's do until one of these objects
// says otherwise. An object is made before the threads that it shall affect, and outlives them.

/// Is shown every entry that is read from a folder (absolute path), and the null pointer at its end, and says what the
/// reader gets instead. What the hook itself reads is not shown to it.
class OnReaddir {
public:
    using Hook = std::function<dirent*(const std::string& folder, dirent* entry)>;
    static dirent* failure(); ///< the answer that makes the call fail
    explicit OnReaddir(Hook hook);
    ~OnReaddir();
    OnReaddir(const OnReaddir&) = delete;
    OnReaddir& operator=(const OnReaddir&) = delete;
};

/// Is asked before a thread with attributes is made; another answer than 0 is what pthread_create() then returns.
class OnThreadCreation {
public:
    explicit OnThreadCreation(std::function<int(const pthread_attr_t*)> hook);
    ~OnThreadCreation();
    OnThreadCreation(const OnThreadCreation&) = delete;
    OnThreadCreation& operator=(const OnThreadCreation&) = delete;
};

/// Is told before a thread is joined.
class OnThreadJoin {
public:
    explicit OnThreadJoin(std::function<void()> hook);
    ~OnThreadJoin();
    OnThreadJoin(const OnThreadJoin&) = delete;
    OnThreadJoin& operator=(const OnThreadJoin&) = delete;
};

/// A thread with attributes that is made meanwhile does nothing before it is joined.
class SleepyThreads {
public:
    SleepyThreads();
    ~SleepyThreads(); ///< wakes them
    SleepyThreads(const SleepyThreads&) = delete;
    SleepyThreads& operator=(const SleepyThreads&) = delete;

    int joined() const;
};

/// Is asked before each wait for a semaphore; true interrupts the wait.
class OnSemWait {
public:
    explicit OnSemWait(std::function<bool(sem_t*)> hook);
    ~OnSemWait();
    OnSemWait(const OnSemWait&) = delete;
    OnSemWait& operator=(const OnSemWait&) = delete;
};

/// Is told before each post of a semaphore.
class OnSemPost {
public:
    explicit OnSemPost(std::function<void()> hook);
    ~OnSemPost();
    OnSemPost(const OnSemPost&) = delete;
    OnSemPost& operator=(const OnSemPost&) = delete;
};

/// Is told, before a statement of the catalogue runs or meets a BrokenStatement, its text and the connection.
class OnStatement {
public:
    using Hook = std::function<void(const std::string& sql, sqlite3* connection)>;
    explicit OnStatement(Hook hook);
    ~OnStatement();
    OnStatement(const OnStatement&) = delete;
    OnStatement& operator=(const OnStatement&) = delete;
};

/// Statements of the catalogue that contain the text cannot be prepared.
class BrokenStatement {
public:
    explicit BrokenStatement(const std::string& text);
    ~BrokenStatement();
    BrokenStatement(const BrokenStatement&) = delete;
    BrokenStatement& operator=(const BrokenStatement&) = delete;
};

/// Counts how often statements of the catalogue that contain the text run.
class StatementCount {
public:
    explicit StatementCount(const std::string& text);
    ~StatementCount();
    StatementCount(const StatementCount&) = delete;
    StatementCount& operator=(const StatementCount&) = delete;

    int count() const;
};
