#pragma once

#include "ctl/Categories.h"
#include "ctl/report/DuplicateFinder.h"
#include "ctl/report/FolderTree.h"
#include "ctl/report/MonthlyTotals.h"
#include "ctl/report/TopFiles.h"

#include <string>
#include <vector>

class Catalogue;

/// How many entries the lists have.
struct ListLimits {
    static constexpr std::size_t files = 50;
    static constexpr std::size_t groups = 50;
    static constexpr std::size_t copies = 10;
};

/// What a report says about one volume. Its memory grows with the folders, and by 24 bytes with each file.
class VolumeSummary {
public:
    /// Reads the whole catalogue once, in one state. Throws a Problem.
    explicit VolumeSummary(const Catalogue& catalogue);

    /// Files with name and size in common, with the paths of the first ones.
    struct Duplicates {
        struct Group {
            std::string name;
            long long size;
            long long files;
            long long wasted;
            std::vector<std::string> paths;
        };
        long long groups = 0;
        long long files = 0;
        long long wasted = 0;
        std::vector<Group> largest;
    };

    CategoryTotals totals;
    long long folders = 0;
    long long negativeSizes = 0; ///< files whose size is known by its low 32 bits alone
    long long newestChange = 0;  ///< when the daemon last wrote a row; 0 without rows
    FolderTree tree;
    MonthlyTotals arrived;
    MonthlyTotals modified;
    TopFiles newest { ListLimits::files };
    TopFiles largest { ListLimits::files };
    Duplicates duplicates;
    long long deletedFiles = 0;
    long long deletedFolders = 0;
    TopFiles deleted { ListLimits::files };

private:
    void readFolders(const Catalogue& catalogue);
    void readFiles(const Catalogue& catalogue, DuplicateFinder& finder);
    void readDuplicates(const Catalogue& catalogue, DuplicateFinder& finder);
};
