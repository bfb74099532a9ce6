#include "ctl/changes/CatalogueFacts.h"

#include "ctl/Catalogue.h"
#include "ctl/Fnv.h"
#include "ctl/Problem.h"
#include "ctl/Query.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>

namespace {

/// An inode number is given again as soon as a file is removed, a time of birth is not.
void identify(const Catalogue& catalogue, CatalogueFacts& facts)
{
    struct statx status = {};
    const bool found = statx(AT_FDCWD, catalogue.path().c_str(), 0, STATX_INO | STATX_BTIME, &status) == 0;
    int moved = 0;
    sqlite3_file_control(catalogue.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved);
    if (!found || moved != 0)
        throw Problem(catalogue.path(), "The catalogue is just being replaced", "Try again");
    facts.hasBirth = (status.stx_mask & STATX_BTIME) != 0 && status.stx_btime.tv_sec != 0;
    facts.identity = facts.hasBirth ? fmt::format("b{}-{}", status.stx_btime.tv_sec, status.stx_btime.tv_nsec)
                                    : fmt::format("i{}", status.stx_ino);
}

long long lastId(const Catalogue& catalogue, std::string_view table)
{
    Query query(catalogue, "select seq from sqlite_sequence where name = ?");
    query.bind(table);
    return query.next() ? query.number(0) : 0;
}

/// Another program may have written any number. These still can be reckoned with.
long long timeOf(const Query& query)
{
    constexpr long long farthest = 1LL << 60;
    return std::clamp(query.number(0), -farthest, farthest);
}

void addTimes(const Catalogue& catalogue, const std::string& table, long long moment, CatalogueFacts& facts)
{
    const std::string select = "select last_updated_time from " + table;
    Query newest(catalogue, select + " order by last_updated_time desc limit 1");
    if (!newest.next())
        return;
    facts.newest = std::max(facts.newest, timeOf(newest));
    Query oldest(catalogue, select + " order by last_updated_time limit 1");
    oldest.next();
    facts.oldest = facts.oldest == noTime ? timeOf(oldest) : std::min(facts.oldest, timeOf(oldest));
    Query settled(catalogue, select + " where last_updated_time <= ? order by last_updated_time desc limit 1");
    settled.bind(moment);
    if (settled.next())
        facts.settled = std::max(facts.settled, timeOf(settled));
}

} // namespace

CatalogueFacts CatalogueFacts::read(const Catalogue& catalogue, long long moment)
{
    CatalogueFacts facts;
    identify(catalogue, facts);
    facts.lastFolder = lastId(catalogue, "Folders");
    facts.lastFile = lastId(catalogue, "Files");
    addTimes(catalogue, "Folders", moment, facts);
    addTimes(catalogue, "Files", moment, facts);
    return facts;
}

void chooseWitness(const Catalogue& catalogue, const CatalogueFacts& facts, VolumePosition& position)
{
    position.witnessKind = '-';
    for (const auto& [kind, text] : { std::pair('f',
                                          "select file_id, path from Files where last_updated_time = ?"
                                          " order by file_id desc limit 1"),
             std::pair('d',
                 "select folder_id, path from Folders where last_updated_time = ?"
                 " order by folder_id desc limit 1") }) {
        Query query(catalogue, text);
        query.bind(facts.settled);
        if (!query.next())
            continue;
        position.witnessKind = kind;
        position.witnessId = query.number(0);
        position.witnessHash = fnv(query.bytes(1));
        return;
    }
}
