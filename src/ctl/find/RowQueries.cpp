#include "ctl/find/RowQueries.h"

#include <algorithm>

namespace {

constexpr long long fourGiB = 1LL << 32;

std::string_view lastElement(std::string_view path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool beginsWith(std::string_view text, std::string_view beginning)
{
    return text.substr(0, beginning.size()) == beginning;
}

} // namespace

RowQueries::RowQueries(
    Table which, const Selection& wanted, const std::string& volumeRoot, const std::optional<std::string>& under)
    : table(which)
    , selection(wanted)
    , root(volumeRoot)
    , id(which == Table::files ? "file_id" : "folder_id")
{
    if (under) {
        below = Range { *under + "/", *under + "0" }; // '0' follows the slash
        paths = below;
    }
    if (selection.pattern && selection.pattern->isAboutPaths())
        limitPaths();
    if (table == Table::folders && selection.largerThan)
        hopeless = true; // they have no size
    chooseWay();
}

/// Takes from the pattern what it says about the paths in this volume.
void RowQueries::limitPaths()
{
    const NamePattern& pattern = *selection.pattern;
    if (const auto only = pattern.only()) {
        hopeless = !beginsWith(*only, root);
        one = hopeless ? std::string() : only->substr(root.size());
        // The root folder itself may have a slash for its name, and has no path.
        if (root.empty() && *only == "/")
            one = std::string();
        return;
    }
    const std::string& beginning = pattern.beginning();
    if (beginning.size() <= root.size()) {
        hopeless = !beginsWith(root, beginning);
        return;
    }
    hopeless = !beginsWith(beginning, root);
    if (hopeless)
        return;
    const Range matching = startingWith(beginning.substr(root.size()));
    if (!paths) {
        paths = matching;
        return;
    }
    paths->from = std::max(paths->from, matching.from);
    paths->to = matching.to.empty() ? paths->to : std::min(paths->to, matching.to);
}

void RowQueries::chooseWay()
{
    const bool byName = selection.pattern && !selection.pattern->isAboutPaths();
    if (one)
        way = Way::path;
    else if (byName && selection.pattern->only())
        way = Way::name;
    else if (paths)
        way = Way::pathRange;
    else if (byName && !selection.pattern->beginning().empty())
        way = Way::nameRange;
    else if (selection.deleted && selection.changedSince)
        way = Way::updates;
    else if (byName)
        way = Way::allNames;
}

RowQueries::Range RowQueries::startingWith(const std::string& beginning)
{
    std::string end = beginning;
    while (!end.empty() && end.back() == '\xff')
        end.pop_back();
    if (!end.empty())
        ++end.back(); // as bytes: 0x7f becomes 0x80, which is the greater one
    return { beginning, end };
}

BoundText RowQueries::inRange(const std::string& column, const Range& range) const
{
    BoundText query { "select " + id + ", " + column + " from " + (table == Table::files ? "Files" : "Folders")
            + " where " + column + " >= ?",
        { range.from } };
    if (!range.to.empty()) {
        query.text += " and " + column + " < ?";
        query.values.emplace_back(range.to);
    }
    return query;
}

std::optional<BoundText> RowQueries::candidates() const
{
    const std::string from = table == Table::files ? " from Files" : " from Folders";
    switch (way) {
    case Way::name:
        return BoundText { "select " + id + ", name" + from + " where name = ?", { *selection.pattern->only() } };
    case Way::nameRange:
        return inRange("name", startingWith(selection.pattern->beginning()));
    case Way::allNames:
        // The order makes the index of the names the shortest way, and costs nothing there.
        return BoundText { "select " + id + ", name" + from + " order by name", {} };
    case Way::path:
        return BoundText { "select " + id + ", path" + from + " where path = ?", { *one } };
    case Way::pathRange:
        return inRange("path", *paths);
    case Way::updates:
        return BoundText { "select " + id + ", ''" + from + " where last_updated_time >= ?",
            { *selection.changedSince } };
    case Way::scan:
        break;
    }
    return std::nullopt;
}

bool RowQueries::acceptsCandidate(std::string_view nameOrPath) const
{
    switch (way) {
    case Way::name:
    case Way::nameRange:
    case Way::allNames:
        return selection.pattern->matches(nameOrPath);
    case Way::path:
    case Way::pathRange:
        return accepts(nameOrPath);
    case Way::updates:
    case Way::scan:
        break;
    }
    return true;
}

bool RowQueries::accepts(std::string_view path) const
{
    if (below && (path < below->from || path >= below->to))
        return false;
    if (!selection.pattern)
        return true;
    if (!selection.pattern->isAboutPaths())
        return selection.pattern->matches(lastElement(path));
    absolute.assign(root).append(path);
    return selection.pattern->matches(absolute.empty() ? "/" : absolute);
}

/// The conditions on what a row holds beside its place.
std::string RowQueries::filter(BoundText& into) const
{
    std::string text = selection.deleted ? " and is_deleted <> 0" : " and is_deleted = 0";
    if (!selection.categories.empty()) {
        text += " and category in (?";
        for (std::size_t i = 1; i < selection.categories.size(); ++i)
            text += ", ?";
        text += ")";
        into.values.insert(into.values.end(), selection.categories.begin(), selection.categories.end());
    }
    if (selection.largerThan) {
        // A negative one has lost what is above its low 32 bits.
        text += " and (size > ? or (size < 0 and size > ?))";
        into.values.emplace_back(*selection.largerThan);
        into.values.emplace_back(std::max(*selection.largerThan - fourGiB, -fourGiB / 2 - 1));
    }
    if (selection.changedSince) {
        text += selection.deleted ? " and last_updated_time >= ?" : " and modified_time >= ?";
        into.values.emplace_back(*selection.changedSince);
    }
    return text;
}

BoundText RowQueries::row() const
{
    BoundText query { table == Table::files ? "select path, size, category, modified_time, last_updated_time from Files"
                                            : "select path, 0, category, modified_time, last_updated_time from Folders",
        {} };
    query.text += " where " + id + " = ?" + filter(query);
    return query;
}

BoundText RowQueries::scan() const
{
    BoundText query { table == Table::files
            ? "select path, size, category, modified_time, last_updated_time, file_id from Files"
            : "select path, 0, category, modified_time, last_updated_time, folder_id from Folders",
        {} };
    query.text += " where " + id + " > ?" + filter(query) + " order by " + id;
    return query;
}

BoundText RowQueries::greatestId() const
{
    return { "select " + id + (table == Table::files ? " from Files" : " from Folders") + " order by " + id
            + " desc limit 1",
        {} };
}
