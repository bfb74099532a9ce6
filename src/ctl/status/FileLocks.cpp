#include "ctl/status/FileLocks.h"

#include <sys/sysmacros.h>

#include <cstdio>
#include <sstream>

std::vector<FileLock> parseFileLocks(const std::string& text)
{
    std::vector<FileLock> locks;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string number;
        std::string kind;
        std::string advice;
        std::string access;
        std::string file;
        int process = 0;
        words >> number >> kind >> advice >> access >> process >> file;
        unsigned major = 0;
        unsigned minor = 0;
        unsigned long long inode = 0;
        // A line of a waiting process has an arrow in place of the kind.
        if (words && kind == "POSIX" && process > 0
            && std::sscanf(file.c_str(), "%x:%x:%llu", &major, &minor, &inode) == 3) // NOLINT(cert-err34-c)
            locks.push_back({ process, makedev(major, minor), inode });
    }
    return locks;
}
