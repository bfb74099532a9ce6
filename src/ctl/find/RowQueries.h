#pragma once

#include "ctl/find/Selection.h"

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

/// SQL with the values of its `?`, from left to right.
struct BoundText {
    std::string text;
    std::vector<std::variant<long long, std::string>> values;
};

/// The statements that find the rows of one table that a Selection wants, with the help of the catalogue's indexes.
///
/// There are two ways. Where an index tells names, paths or times apart, candidates() reads that index alone, and row()
/// fetches each candidate. Else scan() reads the table. What SQL does not compare, accepts() does.
class RowQueries {
public:
    enum class Table { folders, files };

    /// `root`: the volume's. `under`: the folder, relative to it, below which the rows are to lie.
    RowQueries(
        Table table, const Selection& selection, const std::string& root, const std::optional<std::string>& under);

    /// Whether no row of this volume can be wanted.
    bool isHopeless() const { return hopeless; }

    /// Gives id and name, or id and path, of every row that the index knows; nothing where no index helps.
    std::optional<BoundText> candidates() const;
    /// Whether the text that candidates() gave beside the id can be that of a wanted row.
    bool acceptsCandidate(std::string_view nameOrPath) const;

    /// Gives path, size, category, modified_time and last_updated_time of the row whose id is the first value, when it
    /// passes all but accepts().
    BoundText row() const;
    /// Gives the same and the id behind it, by id, of all rows whose ids are above the first value.
    BoundText scan() const;
    /// Whether the row with this path is where it is to be, and is called as it is to be.
    bool accepts(std::string_view path) const;

    /// The greatest id, when there is any.
    BoundText greatestId() const;

private:
    enum class Way { scan, name, nameRange, allNames, path, pathRange, updates };
    struct Range {
        std::string from;
        std::string to; ///< the first text behind it; empty: no end
    };

    void limitPaths();
    void chooseWay();
    BoundText inRange(const std::string& column, const Range& range) const;
    std::string filter(BoundText& into) const;
    static Range startingWith(const std::string& beginning);

    const Table table;
    const Selection& selection;
    const std::string& root;
    const std::string id;
    std::optional<Range> below;     ///< the paths below the folder
    std::optional<Range> paths;     ///< the paths that can match, where anything is known about them
    std::optional<std::string> one; ///< the only name or path that can match
    Way way = Way::scan;
    bool hopeless = false;
    mutable std::string absolute; ///< room for accepts()
};
