#include "watch/Tickle.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

/// The path as a shell takes it for one word: ordinary paths as they are, others in single quotes.
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
        // A read-only volume, a folder that is gone: nobody waits for the file, and a stop has its own way to wake.
    }
}
