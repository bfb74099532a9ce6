#pragma once

#include "ctl/find/RowQueries.h"

#include <optional>
#include <string>
#include <vector>

class Catalogue;
class Query;

/// What a catalogue says about one file or folder.
struct Row {
    std::string path; ///< relative to the volume's root, with a slash in front; empty for the root
    bool isFolder = false;
    bool isDeleted = false;
    long long size = 0; ///< of a file; where 32 bits were stored, the smallest that it can be
    long long category = 0;
    long long modified = 0; ///< seconds since 1970
    long long updated = 0;  ///< when the daemon wrote the row

    /// When the file or folder changed: it was modified, or it was deleted.
    long long changed() const { return isDeleted ? updated : modified; }
};

/// The rows of one table that a Selection wants, by id, in batches. Between two batches no transaction is open: however
/// long the caller takes for what it does with them, the daemon's log does not grow. So rows that are written meanwhile
/// may or may not be seen.
class RowSearch {
public:
    /// All of these have to outlive the object. `under`: as in RowQueries.
    RowSearch(const Catalogue& catalogue, RowQueries::Table table, const Selection& selection, const std::string& root,
        const std::optional<std::string>& under);
    ~RowSearch();

    /// Adds some rows to `batch`; false when these were the last. When it throws a Problem, `batch` has the rows before
    /// it.
    bool next(std::vector<Row>& batch);

private:
    bool collect(const BoundText& candidates);
    bool fetch(std::vector<Row>& batch);
    bool scan(std::vector<Row>& batch);
    void add(std::vector<Row>& batch, const Query& query);

    const Catalogue& catalogue;
    const RowQueries::Table table;
    const Selection& selection;
    const RowQueries queries;
    bool begun = false;
    bool hasIds = false;
    std::vector<long long> ids; ///< the candidates, by id
    std::size_t place = 0;      ///< of the next one
    long long lastId;           ///< of the scan
};
