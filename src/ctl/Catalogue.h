#pragma once

#include <string>

struct sqlite3;

/// A connection that reads one volume's catalogue. It never writes, waits for a writer for five seconds at most, and
/// does not wake the daemon. One thread at a time.
class Catalogue {
public:
    /// Opens the catalogue at `path` (absolute). Throws a Problem that says why, and what helps, when it is missing,
    /// not readable, locked, damaged, or no catalogue at all.
    explicit Catalogue(const std::string& path);
    ~Catalogue();
    Catalogue(const Catalogue&) = delete;
    Catalogue& operator=(const Catalogue&) = delete;

    const std::string& path() const { return file; }
    sqlite3* get() const { return handle; }

    /// Throws the Problem that this SQLite status stands for.
    [[noreturn]] void fail(int status) const;

private:
    /// False when a file beside it cannot be opened and that may be tried again. Throws as the constructor does.
    bool tryToOpen(const std::string& place, bool mayTryAgain);
    void open(const std::string& place);
    void admit() const;

    const std::string file;
    sqlite3* handle = nullptr;
};
