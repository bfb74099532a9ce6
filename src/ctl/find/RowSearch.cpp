#include "ctl/find/RowSearch.h"

#include "ctl/Bytes.h"
#include "ctl/Catalogue.h"
#include "ctl/Query.h"
#include "ctl/Reading.h"

#include <algorithm>
#include <limits>

namespace {

constexpr std::size_t batchSize = 2000;

/// From so many candidates on it is quicker to read the whole table than to look each of them up. The greatest id
/// stands for the number of rows. The limit above it is for memory.
std::size_t mostCandidates(long long greatestId)
{
    return static_cast<std::size_t>(std::clamp(greatestId / 32, 10'000LL, 1'000'000LL));
}

void bind(Query& query, const BoundText& text)
{
    for (const auto& value : text.values) {
        if (const auto* const number = std::get_if<long long>(&value))
            query.bind(*number);
        else
            query.bind(std::string_view(std::get<std::string>(value)));
    }
}

} // namespace

RowSearch::RowSearch(const Catalogue& opened, RowQueries::Table which, const Selection& wanted, const std::string& root,
    const std::optional<std::string>& under)
    : catalogue(opened)
    , table(which)
    , selection(wanted)
    , queries(which, wanted, root, under)
    , lastId(std::numeric_limits<long long>::min())
{
}

RowSearch::~RowSearch() = default;

bool RowSearch::next(std::vector<Row>& batch)
{
    if (queries.isHopeless())
        return false;
    if (!begun) {
        begun = true;
        const auto candidates = queries.candidates();
        hasIds = candidates && collect(*candidates);
    }
    return hasIds ? fetch(batch) : scan(batch);
}

/// Takes the candidates' ids; false when there are too many.
bool RowSearch::collect(const BoundText& candidates)
{
    Query greatest(catalogue, queries.greatestId().text);
    const std::size_t most = mostCandidates(greatest.next() ? greatest.number(0) : 0);
    greatest.reset();
    Query query(catalogue, candidates.text);
    bind(query, candidates);
    while (query.next()) {
        if (!queries.acceptsCandidate(query.bytes(1)))
            continue;
        if (ids.size() == most) {
            ids = {};
            return false;
        }
        ids.push_back(query.number(0));
    }
    std::sort(ids.begin(), ids.end());
    return true;
}

bool RowSearch::fetch(std::vector<Row>& batch)
{
    if (place == ids.size())
        return false;
    const BoundText text = queries.row();
    const std::size_t end = std::min(ids.size(), place + batchSize);
    const Reading reading(catalogue);
    Query query(catalogue, text.text);
    for (; place < end; ++place) {
        query.reset();
        query.bind(ids[place]);
        bind(query, text);
        if (query.next())
            add(batch, query);
    }
    return place < ids.size();
}

bool RowSearch::scan(std::vector<Row>& batch)
{
    const BoundText text = queries.scan();
    Query query(catalogue, text.text);
    query.bind(lastId);
    bind(query, text);
    for (const std::size_t end = batch.size() + batchSize; batch.size() < end;) {
        if (!query.next())
            return false;
        lastId = query.number(5);
        add(batch, query);
    }
    return true;
}

void RowSearch::add(std::vector<Row>& batch, const Query& query)
{
    if (!queries.accepts(query.bytes(0)))
        return;
    Row& row = batch.emplace_back();
    row.path = query.bytes(0);
    row.isFolder = table == RowQueries::Table::folders;
    row.isDeleted = selection.deleted;
    row.size = fileSize(query.number(1));
    row.category = query.number(2);
    row.modified = query.number(3);
    row.updated = query.number(4);
}
