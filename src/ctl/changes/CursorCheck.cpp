#include "ctl/changes/CursorCheck.h"

#include "ctl/Catalogue.h"
#include "ctl/Fnv.h"
#include "ctl/Query.h"
#include "ctl/changes/CatalogueFacts.h"
#include "ctl/changes/ClockReading.h"

#include <algorithm>

namespace {

constexpr RestartReason madeAnew
    = { "made-anew", "The catalogue was made anew, replaced by another one, or set back to an earlier state" };
constexpr RestartReason purged
    = { "purged", "The cursor is so old that deleted rows may have been purged since, unseen" };
constexpr RestartReason clockBack = { "clock-back", "The clock was set back since the cursor was made" };

/// Whether a deleted row of that time may have been purged by now.
bool mayBePurged(long long time, const ClockReading& clock, long long threshold)
{
    return time < clock.now - threshold;
}

/// New rows have ids that are greater than all before. With earlier times they show that the clock was set back.
bool hasNewRowsBefore(const Catalogue& catalogue, const VolumePosition& since, long long time)
{
    Query files(catalogue, "select 1 from Files where file_id > ? and +last_updated_time < ? limit 1");
    files.bind(since.lastFile).bind(time);
    Query folders(catalogue, "select 1 from Folders where folder_id > ? and +last_updated_time < ? limit 1");
    folders.bind(since.lastFolder).bind(time);
    return files.next() || folders.next();
}

/// The witness was one of the newest rows. It may have been written again since, or purged. It has not become another
/// row, nor older, unless the state that it was seen in is not a part of the catalogue's past.
std::optional<RestartReason> askWitness(const VolumePosition& since, long long from, const ClockReading& clock,
    long long threshold, const Catalogue& catalogue)
{
    if (since.witnessKind == '-')
        return {};
    Query witness(catalogue,
        since.witnessKind == 'f' ? "select last_updated_time, path from Files where file_id = ?"
                                 : "select last_updated_time, path from Folders where folder_id = ?");
    witness.bind(since.witnessId);
    if (!witness.next())
        return mayBePurged(since.floor, clock, threshold) ? std::nullopt : std::optional(madeAnew);
    if (fnv(witness.bytes(1)) != since.witnessHash)
        return madeAnew;
    return witness.number(0) < from ? std::optional(clockBack) : std::nullopt;
}

} // namespace

std::optional<RestartReason> whyRestart(
    const VolumePosition& since, const CatalogueFacts& facts, const ClockReading& clock, long long threshold)
{
    if (facts.identity != since.identity || facts.lastFolder < since.lastFolder || facts.lastFile < since.lastFile)
        return madeAnew;
    if (since.newest == noTime)
        return {}; // it was empty: everything is read, and nothing can have been missed
    // An inode number may be that of a removed catalogue. Then all rows are new; and when they are not, because each
    // was written again, the full listing is no longer than what would be read anyway.
    if (!facts.hasBirth && facts.oldest > since.oldest && facts.oldest >= since.floor)
        return madeAnew;
    // What a transaction deleted that was open at the reading may be older than the reading, but not by half a
    // threshold: a transaction is the work on one folder.
    if (mayBePurged(since.floor, clock, threshold) && since.readAt < clock.now - threshold / 2)
        return purged;
    const long long back = clock.setBackSince(since);
    if (back > smallStepBack || clock.now + back < since.floor)
        return clockBack;
    // The newest row itself may have been purged.
    if (facts.newest < since.floor && !mayBePurged(since.floor, clock, threshold))
        return clockBack;
    return {};
}

std::optional<RestartReason> whyRestart(const VolumePosition& since, const CatalogueFacts& facts,
    const ClockReading& clock, long long threshold, const Catalogue& catalogue)
{
    std::optional<RestartReason> reason = whyRestart(since, facts, clock, threshold);
    if (reason || since.newest == noTime)
        return reason;
    const long long from = since.floor - clock.setBackSince(since);
    reason = askWitness(since, from, clock, threshold, catalogue);
    if (!reason && hasNewRowsBefore(catalogue, since, from))
        reason = clockBack;
    return reason;
}

long long settlingMoment(const VolumePosition* since, const ClockReading& clock)
{
    return since != nullptr && since->newest > since->readAt ? std::min(since->readAt, clock.now) : clock.now;
}

long long nextDoubt(const VolumePosition* since, const ClockReading& clock)
{
    if (since == nullptr)
        return noTime;
    const long long back = clock.setBackSince(*since);
    return back > 0 ? std::max(since->doubtUntil, clock.now + back) : since->doubtUntil;
}

long long nextFloor(const VolumePosition* since, const CatalogueFacts& facts, const ClockReading& clock)
{
    if (facts.newest == noTime)
        return noTime;
    if (since == nullptr || since->floor == noTime)
        return facts.settled != noTime ? facts.settled : clock.now;
    // Only a new row that is later than all rows of before the last step of the clock shows that the writer has passed
    // that step.
    if (facts.settled > std::max(since->settled, nextDoubt(since, clock)))
        return facts.settled;
    return std::min(since->floor - clock.setBackSince(*since), clock.now);
}
