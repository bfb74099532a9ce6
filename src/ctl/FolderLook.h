#pragma once

#include <string>

/// What is at a path, links followed.
struct FolderLook {
    enum class State {
        folder,
        missing,  ///< nothing is there
        deadLink, ///< a link on the way leads to nothing
        other,    ///< something that is no folder, here or above
        unknown,  ///< it cannot be looked at
    };
    State state;
    std::string reason; ///< of `unknown`, in the words of the system; of `deadLink`, the path of the link

    bool isFolder() const { return state == State::folder; }
};

FolderLook lookAtFolder(const std::string& path);

/// The path by which two paths of one place are equal: without links, dots and doubled slashes, as far as it exists.
std::string canonicalPath(const std::string& path);

/// Whether a folder has no entry. False when it cannot be read.
bool isEmptyFolder(const std::string& path);

/// Whether a file system of its own is mounted at the folder, other than that of the folder above.
bool isMountPoint(const std::string& path);

/// Whether it lies on a file system that is mounted read-only.
bool isOnReadOnlyFileSystem(const std::string& path);

/// Whether a path, without its trailing slash, has an empty element, '.' or '..'.
bool hasOddElements(const std::string& path);
