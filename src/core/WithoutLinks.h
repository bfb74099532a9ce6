#pragma once

#include <sys/types.h>

#include <string>

// A user of the volume can put a link in place of any file or folder of it at any moment, and the daemon, as root,
// would follow it anywhere. So where links may be followed at all, they are resolved once, and not followed from then
// on.

/// Whether that user's files and links are the daemon's own: root, and the user it runs as.
bool isOwnUser(uid_t user);

/// The path with a link in place of its folder resolved, and a link in place of its file as well if `file` says so. An
/// administrator may keep files elsewhere, so links of the daemon's own users are followed, wherever they lead. Empty
/// with one of somebody else, and when the folder cannot be looked at. A file that is not there, or a link to none,
/// keeps its name.
enum class LinkedFile { followed, kept };
std::string resolveOwnLinks(const std::string& path, LinkedFile file);

/// Like open() and unlink(), of a path that has no link in it, neither among its folders nor at its end: otherwise they
/// fail, with ELOOP or ENOTDIR. A path that was resolved leads to the same place then, or nowhere. None of them
/// allocates.
int openWithoutLinks(const char* path, int flags, mode_t mode = 0);
/// The same of a path below an open folder.
int openWithoutLinksBelow(int folder, const char* path, int flags, mode_t mode = 0);
int unlinkWithoutLinks(const char* path);
