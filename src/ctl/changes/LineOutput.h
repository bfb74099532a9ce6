#pragma once

#include "core/FileDescriptor.h"
#include "ctl/Problem.h"

#include <string>

/// Thrown when a stop was requested while output waited for its reader.
struct StopRequested { };

/// Standard output does not take what is written. Its own type, because no catalogue is to blame.
class OutputFailure : public Problem {
public:
    explicit OutputFailure(const std::string& reason);
};

/// Standard output of a program that writes many lines. They are kept until send(), in memory and, when there are many,
/// in a temporary file without a name: whoever reads the output slowly does not hold up a transaction.
class LineOutput {
public:
    /// With a descriptor that becomes readable when the program is to stop, a full pipe does not hold it up.
    explicit LineOutput(int stopDescriptor = -1);

    /// Adds a line with its line end. Writes only where no temporary file can be had. Throws as send().
    void add(const std::string& line);
    /// Writes what was added. Not to be called in a transaction. Throws an OutputFailure, or StopRequested.
    void send();
    /// send(), and sees to it that a file has it on the disk.
    void finish();

    /// A place to come back to.
    std::size_t mark() const { return written + spooled + gathered.size(); }
    /// Takes back what was added after the mark, unless some of it is written already.
    void takeBack(std::size_t mark);

private:
    bool spool();
    void write(const char* bytes, std::size_t length);
    void waitForReader() const;

    const int stop;
    const FileDescriptor spoolFile; ///< what was added first
    std::string gathered;           ///< what was added behind that
    std::size_t spooled = 0;        ///< bytes in the file
    std::size_t written = 0;        ///< bytes that standard output has taken
};
