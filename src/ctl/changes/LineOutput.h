#pragma once

#include <string>

/// Thrown when a stop was requested while output waited for its reader.
struct StopRequested { };

/// Standard output of a program that writes many lines. They are gathered, so that a transaction need not wait for
/// whoever reads the output unless there is a lot of it.
class LineOutput {
public:
    /// With a descriptor that becomes readable when the program is to stop, a full pipe does not hold it up.
    explicit LineOutput(int stopDescriptor = -1);

    /// Adds a line with its line end. May write. Throws a Problem, or StopRequested.
    void add(const std::string& line);
    /// Writes what was added, and sees to it that a file has it on the disk. Throws as add().
    void finish();

    /// A place to come back to.
    std::size_t mark() const { return written + gathered.size(); }
    /// Takes back what was added after the mark, unless some of it is written already.
    void takeBack(std::size_t mark);

private:
    void writeOut();
    void waitForReader() const;

    const int stop;
    std::string gathered;
    std::size_t written = 0;
};
