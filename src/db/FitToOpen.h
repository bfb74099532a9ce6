#pragma once

#include <sys/stat.h>

// Whether SQLite may open a file, or work on the file that it has just opened: a regular file with one name, of root or
// the daemon's own user. Folders and devices pass, pipes and sockets do not. These functions do not allocate: SQLite
// calls them, and no exception may pass through its code.

bool isFitToOpen(const struct stat64& status);
/// Also looks whether the open file still has its name.
bool isFitToOpen(int descriptor);

/// Whether the file still has the name under which it was opened. The kernel does not count a removed name as a link,
/// so without this another user's file could pass for one with a single name. Once false, the answer stays false: a
/// name that is made again is another one.
bool hasItsName(int descriptor);
