#pragma once

#include "ctl/HostConfiguration.h"
#include "ctl/find/RowSearch.h"

#include <string>

/// Rows as text on standard output.
class RowOutput {
public:
    struct Form {
        enum Kind { paths, json } kind = paths;
        bool detailed = false; ///< size and time in front of each path
        char end = '\n';       ///< behind each
        bool readable = false; ///< names as visible() has them, not as the bytes they are
    };

    explicit RowOutput(const Form& wanted)
        : form(wanted)
    {
    }

    /// Keeps the text until flush().
    void add(const ConfiguredVolume& volume, const Row& row);
    void add(const std::string& line);

    /// Writes what was added. Throws a Problem when it cannot be written. When the reader has gone, the program ends
    /// quietly, by SIGPIPE.
    void flush();

private:
    void addJson(const ConfiguredVolume& volume, const Row& row);

    const Form form;
    std::string text;
};

/// The row's absolute path.
std::string absolutePath(const ConfiguredVolume& volume, const Row& row);
