#pragma once

#include <sys/types.h>

/// Like open() and unlink(), of a path that has no link in it, neither among its folders nor at its end: otherwise they
/// fail with ELOOP. A path that was looked at before leads to the same place then, or nowhere. On kernels before 5.6
/// the folders are not looked at. Neither allocates.
int openWithoutLinks(const char* path, int flags, mode_t mode = 0);
int unlinkWithoutLinks(const char* path);
