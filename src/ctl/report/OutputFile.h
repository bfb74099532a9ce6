#pragma once

#include <string>
#include <string_view>

/// A file that appears complete or not at all, in place of an older one.
class OutputFile {
public:
    /// Throws a Problem when the place is not fit: no folder, something there that is no regular file (a link is
    /// none), or the daemon's own folder. Nothing is written yet.
    explicit OutputFile(const std::string& place);

    /// Writes the file beside its place and puts it there. Throws a Problem; what was there is then as it was.
    void replace(const std::string& content) const;

private:
    const std::string path;
};
