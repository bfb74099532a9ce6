#pragma once

#include "core/FileDescriptor.h"
#include "core/HeldFolder.h"
#include "db/FileIdentity.h"

#include <sys/stat.h>

#include <string>

/// What lies under one of the names of a catalogue: the main file or one of the side files that SQLite opens beside it.
/// A descriptor holds the file, so that all operations concern the file that was found first. It is an O_PATH
/// descriptor, because closing any other one would release the locks that this process has on the file.
class CatalogueName {
public:
    CatalogueName(const HeldFolder& folder, const std::string& name);

    /// True when there is nothing, or a regular file with one name. SQLite may then open it, if its owner is right.
    bool isFit() const;
    bool isAbsent() const { return absent; }
    /// Whether it belongs to another user than root and the daemon's own.
    bool isForeign() const;
    /// Whether it was taken over from another user and its content has not been checked yet.
    bool isMarked() const { return isMarked(status); }
    static bool isMarked(const struct stat64& status);
    bool is(const FileIdentity& other) const { return other.isOf(status); }

    /// Whether an open file is this one. When there was nothing here, any file that does not carry the mark counts as
    /// this one: it was made since.
    bool covers(const struct stat64& opened) const;

    /// Makes root the owner and takes write permission from all others. With the mark, the next start checks the
    /// content before it trusts the file. True when nothing is here. False when it fails.
    enum Mark { unmarked, marked };
    bool giveToRoot(Mark mark) const;

private:
    const FileDescriptor file;
    const bool absent;
    struct stat64 status;
};
