#pragma once

#include <sys/types.h>

#include <string>

// A user of the volume can put a link in place of any of its files and folders at any moment. The daemon runs as root
// and would follow such a link anywhere. So links are resolved once, where they may be followed at all, and are not
// followed from then on. Any thread may call these functions.

/// Whether the daemon trusts links and files of that user: root, or the user that the daemon runs as.
bool isOwnUser(uid_t user);

/// What becomes of a link in place of the file itself.
enum class LinkedFile { followed, kept };
/// The path with a link in place of its folder resolved, and also a link in place of its file when `file` says so.
/// Links of a trusted user (see isOwnUser()) are followed wherever they lead, because an administrator may keep files
/// elsewhere. Empty when a link belongs to another user, and when the folder cannot be opened. The file need not exist,
/// and a link to nothing keeps its name.
std::string resolveOwnLinks(const std::string& path, LinkedFile file);

// Like open() and unlink(). They fail, with ELOOP or ENOTDIR, when any part of the path is a link. So a resolved path
// leads to the place that it was resolved to, or nowhere. None of them allocates.

int openWithoutLinks(const char* path, int flags, mode_t mode = 0);
/// `path` is relative to the open folder.
int openWithoutLinksBelow(int folder, const char* path, int flags, mode_t mode = 0);
int unlinkWithoutLinks(const char* path);
