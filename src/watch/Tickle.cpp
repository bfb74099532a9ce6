#include "watch/Tickle.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

/// The path as one word for the shell. An ordinary path stays as it is; any other one is put in single quotes, because
/// a user of the volume chooses its characters.
std::string shellWord(const std::string& path)
{
    const auto isOrdinary = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
            || std::strchr("/._-+,:@%=", c) != nullptr;
    };
    if (!path.empty() && path.front() == '/' && std::all_of(path.begin(), path.end(), isOrdinary))
        return path;
    std::string quoted = "'";
    for (const char c : path)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

} // namespace

void touchTickle(const std::string& folder)
{
    const std::string command = "touch " + shellWord(folder) + "/" + ".tickle";
    if (std::system(command.c_str()) != 0) {
        // The volume may be read-only or the folder gone. Nothing depends on the file: a stop wakes the watcher by
        // itself.
    }
}
