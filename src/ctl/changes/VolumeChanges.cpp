#include "ctl/changes/VolumeChanges.h"

#include "ctl/Catalogue.h"
#include "ctl/Problem.h"
#include "ctl/Reading.h"
#include "ctl/Text.h"
#include "ctl/changes/CatalogueFacts.h"
#include "ctl/changes/ChangedRows.h"
#include "ctl/changes/ClockReading.h"
#include "ctl/changes/CursorCheck.h"
#include "ctl/changes/LineOutput.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>

struct VolumeChanges::Reading {
    Reading(const Catalogue& catalogue, const std::string& volumeName, LineOutput& lineOutput)
        : rows(catalogue, volumeName)
        , output(lineOutput)
    {
    }

    void print(const std::string& line)
    {
        output.add(line);
        hasPrinted = true;
    }

    ChangedRows rows;
    LineOutput& output;
    ClockReading clock = ClockReading::take(); ///< before the transaction: what is later than this is in the future
    bool hasPrinted = false;
};

VolumeChanges::VolumeChanges(ConfiguredVolume volume, long long purgeThreshold)
    : configured(std::move(volume))
    , threshold(purgeThreshold)
{
}

VolumeChanges::Outcome VolumeChanges::read(const VolumePosition* since, Restart restart, LineOutput& output) const
{
    const Catalogue catalogue(configured.cataloguePath());
    Reading reading(catalogue, configured.name, output);
    const ::Reading state(catalogue);
    const CatalogueFacts facts = CatalogueFacts::read(catalogue, settlingMoment(since, reading.clock));
    const auto reason = since != nullptr
        ? whyRestart(*since, facts, reading.clock, shortestThreshold(*since), catalogue)
        : std::nullopt;
    if (reason) {
        sayRestart(reading, *reason,
            restart == Restart::list ? "All rows of volume '" + configured.name + "' are listed now"
                                     : "Take a full listing of volume '" + configured.name + "' (--full)");
        if (restart == Restart::refuse)
            return { *since, true, true };
    }
    if (since == nullptr || reason)
        listAll(reading);
    else
        listSince(reading, *since);

    VolumePosition next;
    next.identity = facts.identity;
    next.lastFolder = facts.lastFolder;
    next.lastFile = facts.lastFile;
    next.floor = nextFloor(since, facts, reading.clock);
    next.doubtUntil = nextDoubt(since, reading.clock);
    next.threshold = threshold;
    next.settled = facts.settled;
    next.newest = facts.newest;
    next.oldest = facts.oldest;
    next.readAt = reading.clock.now;
    next.clockOffset = reading.clock.offset;
    next.boot = reading.clock.boot;
    next.digest = reading.rows.digest(next.floor, next.newest);
    chooseWitness(catalogue, facts, next);
    return { next, false, reading.hasPrinted };
}

/// The daemon may have purged with the former one, and still do so: it reads its configuration at its start.
long long VolumeChanges::shortestThreshold(const VolumePosition& since) const
{
    return since.threshold > 0 ? std::min(since.threshold, threshold) : threshold;
}

void VolumeChanges::listAll(Reading& reading) const
{
    nlohmann::ordered_json event = { { "event", "full-listing" } };
    setBytes(event, "volume", configured.name);
    reading.print(jsonText(event) + "\n");
    reading.rows.all([&reading](const std::string& line) { reading.print(line); });
}

void VolumeChanges::listSince(Reading& reading, const VolumePosition& since) const
{
    const long long back = reading.clock.setBackSince(since);
    long long from = since.floor == noTime ? noTime : since.floor - back;
    // A second of which no row has come or changed since is not listed again.
    if (from != noTime && back == 0 && reading.rows.digest(since.floor, since.newest) == since.digest)
        from = since.newest + 1;
    reading.rows.since(from, [&reading](const std::string& line) { reading.print(line); });
}

void VolumeChanges::sayRestart(Reading& reading, const RestartReason& reason, const std::string& remedy) const
{
    nlohmann::ordered_json event = { { "event", "restart-needed" } };
    setBytes(event, "volume", configured.name);
    event["reason"] = reason.code;
    event["message"] = reason.explanation;
    reading.print(jsonText(event) + "\n");
    report(Problem(configured.cataloguePath(), reason.explanation, remedy));
}
