#pragma once

#include "ctl/changes/VolumePosition.h"

#include <string>

class Catalogue;

/// What tells one state of a catalogue from another, read in a few look-ups.
struct CatalogueFacts {
    std::string identity;  ///< of the file: its time of birth, or its inode where the file system knows no birth
    bool hasBirth = false; ///< which of the two
    long long lastFolder = 0;
    long long lastFile = 0;
    long long newest = noTime;  ///< the greatest last_updated_time
    long long settled = noTime; ///< the greatest that is not after the given moment
    long long oldest = noTime;  ///< the least

    /// Reads them in the open transaction. Rows after `moment` count as lying in the future. Throws a Problem, also
    /// when another file is at the catalogue's path by now.
    static CatalogueFacts read(const Catalogue& catalogue, long long moment);
};

/// Puts one of the newest settled rows into the position: its kind, id, and the hash of its path.
void chooseWitness(const Catalogue& catalogue, const CatalogueFacts& facts, VolumePosition& position);
