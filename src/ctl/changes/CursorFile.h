#pragma once

#include <string>

/// The file in which a cursor is kept between two runs.
class CursorFile {
public:
    /// Throws a Problem when a file could not be made there. A link is followed.
    explicit CursorFile(const std::string& path);

    const std::string& path() const { return file; }

    /// Its content; empty when there is no file yet. Throws a Problem when it cannot be read.
    std::string read() const;
    /// Replaces it in one step: after a crash or a power cut there is the old content or the new one. Throws a Problem
    /// when that fails; the old content then stays.
    void write(const std::string& text) const;

private:
    std::string file;
};
