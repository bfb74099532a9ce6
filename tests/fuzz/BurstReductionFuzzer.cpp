#include "FuzzSupport.h"

#include "watch/BurstReduction.h"

#include <sys/inotify.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

/// The record's fields that the reduction looks at, and where the next record begins.
struct Record {
    int wd;
    std::size_t end;
};

/// The whole records of a read, one after the other, for as long as the next one's fixed part is there.
std::vector<Record> recordsOf(const std::string& bytes)
{
    std::vector<Record> records;
    std::size_t position = 0;
    while (position + sizeof(inotify_event) <= bytes.length()) {
        inotify_event fixedPart;
        std::memcpy(&fixedPart, bytes.data() + position, sizeof fixedPart);
        position += sizeof fixedPart + fixedPart.len;
        records.push_back({ fixedPart.wd, position });
    }
    return records;
}

/// Some descriptors are not known, and some are the same folder under two numbers.
std::string pathOf(int descriptor) { return descriptor % 5 == 0 ? "" : "/v/" + std::to_string(descriptor & ~1); }

/// Reduces the read with the stop made by the `stopAt`th look-up (0: before the first; more than there are:
/// never), and compares folders, look-ups, events and position with what the list of records says.
void check(const std::string& bytes, std::size_t shift, std::size_t stopAt)
{
    // The block ends where the read ends: a look beyond it is a fault.
    const std::unique_ptr<char[]> block(new char[shift + bytes.length()]);
    std::copy(bytes.begin(), bytes.end(), block.get() + shift);

    constexpr int earlierEvents = 5;
    std::vector<int> lookedUp;
    StopRequest stop;
    if (stopAt == 0)
        stop.make();
    const auto lookUp = [&](int descriptor) {
        lookedUp.push_back(descriptor);
        if (lookedUp.size() == stopAt)
            stop.make();
        return pathOf(descriptor);
    };
    Burst burst;
    burst.changedDirs = { "/from/an/earlier/read" };
    burst.eventCount = earlierEvents;
    burst.position = 77; // of the read before
    reduceBurst(block.get() + shift, bytes.length(), lookUp, stop, burst);

    // The first record's descriptor, then at each change the one that is left.
    const std::vector<Record> records = recordsOf(bytes);
    std::vector<int> expectedLookUps;
    std::size_t walked = 0;
    const auto isStopped = [&] { return expectedLookUps.size() >= stopAt; };
    if (!records.empty())
        expectedLookUps.push_back(records[0].wd);
    while (walked < records.size() && !isStopped()) {
        if (walked > 0 && records[walked].wd != records[walked - 1].wd)
            expectedLookUps.push_back(records[walked - 1].wd);
        ++walked;
    }
    std::set<std::string> expectedDirs = { "/from/an/earlier/read" };
    for (const int descriptor : expectedLookUps)
        expectedDirs.insert(pathOf(descriptor));

    REQUIRE(lookedUp == expectedLookUps);
    REQUIRE(burst.changedDirs == expectedDirs);
    REQUIRE(burst.eventCount == earlierEvents + static_cast<int>(walked));
    REQUIRE(burst.position == static_cast<int>(walked == 0 ? 0 : records[walked - 1].end));
}

/// What the kernel could have handed out: whole records with padded names.
std::string readOfTheKernel(const std::string& choices)
{
    std::string bytes;
    for (const char choice : choices) {
        const auto bits = static_cast<unsigned>(static_cast<unsigned char>(choice));
        inotify_event record = {};
        record.wd = static_cast<int>(bits & 7U) - 1; // -1: the queue overflowed
        record.mask = IN_CREATE;
        record.len = (bits >> 3U & 3U) * 16;
        bytes.append(reinterpret_cast<const char*>(&record), sizeof record);
        bytes.append(record.len, '\0');
    }
    return bytes;
}

} // namespace

/// The first byte says when the stop is made, 255 for never, the second how the block is aligned. The rest is a
/// read, once as it is and once as choices of whole records.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    InputBytes input(data, size);
    const std::uint8_t stopAt = input.takeByte();
    const std::size_t lookUpsToStop = stopAt == 255 ? SIZE_MAX : stopAt;
    const std::size_t shift = input.takeByte() & 7U;
    const std::string rest = input.takeRest();
    if (rest.empty())
        return 0; // a read of nothing is not reduced

    check(rest, shift, lookUpsToStop);
    const std::string whole = readOfTheKernel(rest);
    check(whole, shift, lookUpsToStop);
    check(whole, 0, SIZE_MAX);
    const std::vector<Record> records = recordsOf(whole);
    REQUIRE(records.size() == rest.length());
    REQUIRE(records.back().end == whole.length());
    return 0;
}
