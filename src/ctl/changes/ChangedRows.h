#pragma once

#include "ctl/changes/RowLine.h"

#include <cstdint>
#include <functional>
#include <string>

class Catalogue;

/// The rows of one volume's catalogue that were written at or after a moment, as JSON lines.
///
/// They come in an order in which they can be applied one by one, to a folder tree as well as to a table of paths:
/// deleted files, then deleted folders, the deepest first, then live folders, the uppermost first, then live files. So
/// a path that was deleted as one kind and made anew as the other ends live.
class ChangedRows {
public:
    using Sink = std::function<void(const std::string& line)>;

    ChangedRows(const Catalogue& catalogue, const std::string& volumeName);

    /// Gives every row to the sink. In the open transaction. Throws a Problem, and what the sink throws.
    void all(const Sink& sink);
    /// Only rows with that last_updated_time or a later one.
    void since(long long time, const Sink& sink);

    /// A hash of the rows with these times, whatever their order. Throws a Problem.
    std::uint64_t digest(long long first, long long last);

private:
    void folders(const std::string& text, long long time, const Sink& sink);
    void files(const std::string& text, long long time, const Sink& sink);
    bool areManyFolders(long long time) const;

    const Catalogue& catalogue;
    RowLine lines;
};
