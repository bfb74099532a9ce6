#pragma once

#include "ctl/find/BestRows.h"
#include "ctl/find/RowOutput.h"
#include "ctl/find/Selection.h"
#include "ctl/find/UnderFolder.h"

#include <cstddef>
#include <vector>

class Catalogue;

/// What is done with the rows that a Selection wants.
struct FindTask {
    enum Kind { list, count, newest, largest } kind = list;
    Selection selection;
    std::vector<SearchedVolume> volumes;
    std::size_t limit = 0;    ///< of the newest and the largest
    bool mustBeThere = false; ///< only what is still on the disk
    RowOutput::Form form;
};

/// One search in all volumes.
class FindRun {
public:
    explicit FindRun(const FindTask& wanted);

    /// Writes what was found to standard output, and on standard error what is wrong with a volume; that volume's other
    /// rows may be missing. Returns an ExitStatus. Throws a Problem when the output cannot be written.
    int run();

private:
    void search(std::size_t number);
    void searchTable(const Catalogue& catalogue, std::size_t number, RowQueries::Table table);
    void take(std::size_t number, const Row& row);
    bool isThere(const ConfiguredVolume& volume, const Row& row);

    const FindTask& task;
    RowOutput output;
    BestRows best;
    long long count = 0;
    int status;
    bool hasReportedUnseen = false; ///< in this volume, that a path could not be looked at
};
