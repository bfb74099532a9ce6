#pragma once

#include <functional>
#include <optional>
#include <string>

/// Where this machine's part in the daemon's work is to be seen.
struct Machine {
    std::string mimeTable = "/usr/local/quarrow/mime_types.txt";
    std::string standbyMarker = "/tmp/standby";
    /// One number each. The kernel keeps to the lower of two: the machine's and that of the user namespace.
    std::string watchLimit = "/proc/sys/fs/inotify/max_user_watches";
    std::string watchLimitHere = "/proc/sys/user/max_inotify_watches";
    std::string instanceLimit = "/proc/sys/fs/inotify/max_user_instances";
    /// Takes an inotify instance and gives it back. 0, or the errno of the failure.
    std::function<int()> tryInotify = takeInotifyInstance;

    static int takeInotifyInstance();
};
