#pragma once

#include <sys/stat.h>

// Whether SQLite may open a file, or work on what it has just opened: a regular file of the daemon's own user that has
// one name. Folders and devices pass, since they are no files. None of these allocates: SQLite calls them, and no
// exception may pass through it.

bool isFitToOpen(const struct stat64& status);
/// Also looks whether the open file still has its name.
bool isFitToOpen(int descriptor);

/// Whether the file still has the name under which it was opened. The kernel no longer counts a removed name among the
/// file's links, so another user's file could pass for one with a single name. A name that comes back is another one:
/// once false, the answer stays false.
bool hasItsName(int descriptor);
