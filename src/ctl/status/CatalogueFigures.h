#pragma once

#include <array>
#include <functional>

class Catalogue;

/// What a catalogue holds, counted.
struct CatalogueFigures {
    struct Kind {
        long long files = 0;
        long long bytes = 0; ///< with sizes that were stored in 32 bits put right, see fileSize()
    };

    long long folders = 0;
    std::array<Kind, 4> kinds; ///< live files: video, audio, image, other
    long long deletedFolders = 0;
    long long deletedFiles = 0;
    long long newestChange = 0; ///< seconds since 1970: the last time that a row was written; 0 without rows
    long long oldestFolder = 0; ///< the same for the folder that was not written for the longest time

    Kind all() const;
};

/// Told how much of the work is done, from 0 to 1, now and then.
using Progress = std::function<void(double)>;

/// Counts all rows in one pass, as of one moment. Throws a Problem.
CatalogueFigures readFigures(const Catalogue& catalogue, const Progress& progress);
