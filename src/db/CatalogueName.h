#pragma once

#include "core/FileDescriptor.h"
#include "core/HeldFolder.h"
#include "db/FileIdentity.h"

#include <sys/stat.h>

#include <string>

/// What lies under one of the names of a catalogue: the main file or one of the side files that SQLite opens beside it.
/// Held by a descriptor of its own, so that everything is done to the file that was looked at. It is opened with
/// O_PATH: to open and close a file otherwise would take away the locks that this process has on it.
class CatalogueName {
public:
    CatalogueName(const HeldFolder& folder, const std::string& name);

    /// Nothing, or something that SQLite may open once it is root's or the daemon's own.
    bool isFit() const;
    bool isAbsent() const { return absent; }
    bool isForeign() const;
    /// Whether it was taken over from another user and not yet looked into.
    bool isMarked() const { return isMarked(status); }
    static bool isMarked(const struct stat64& status);
    bool is(const FileIdentity& other) const { return other.isOf(status); }

    /// Whether an open file is this one. When there was none it is one that has come since, which nobody else may have
    /// had a hand in.
    bool covers(const struct stat64& opened) const;

    /// Makes root the owner. With the mark the next start looks into the file before it trusts it.
    enum Mark { unmarked, marked };
    bool giveToRoot(Mark mark) const;

private:
    const FileDescriptor file;
    const bool absent;
    struct stat64 status;
};
