#pragma once

#include <cstdint>
#include <limits>
#include <string>

/// Stands for the time of no row: earlier than all times.
constexpr long long noTime = std::numeric_limits<long long>::min();

/// Where the reading of one volume's changes has come to. Times are seconds since the epoch.
///
/// `floor` is what later rows are found by: every row that becomes visible after the reading carries a
/// last_updated_time of `floor` or later. That holds because
/// - a catalogue has one writer, the one connection of the daemon, whose transactions follow one another,
/// - every statement that writes a row sets its last_updated_time to strftime('now'), which SQLite evaluates with the
///   write lock held; inside a transaction that is after the BEGIN,
/// - a reader sees whole transactions.
/// So what is committed later, however long its transaction has been open by then, was written after the last
/// transaction that the reader has seen, and therefore not before the greatest time in it. Only a clock that is set
/// back breaks this; see CursorCheck.h. Rows of the second `floor` itself may still come, so it is read again.
struct VolumePosition {
    std::string identity;          ///< of the catalogue file, see CatalogueFacts
    long long lastFolder = 0;      ///< the greatest folder_id that was ever given
    long long lastFile = 0;        ///< the greatest file_id that was ever given
    long long floor = noTime;      ///< what becomes visible later is at least this late
    long long settled = noTime;    ///< the greatest last_updated_time that certainly was not in the future
    long long newest = noTime;     ///< the greatest last_updated_time of all rows
    long long oldest = noTime;     ///< the least one
    long long readAt = 0;          ///< the reader's clock at the beginning of the reading
    long long clockOffset = 0;     ///< see ClockReading
    std::uint64_t boot = 0;        ///< see ClockReading
    long long doubtUntil = noTime; ///< rows of before the last small step of the clock are this late at the most
    long long threshold = 0;       ///< the purge threshold in seconds, as the reader knew it
    std::uint64_t digest = 0;      ///< of all rows from `floor` to `newest`
    char witnessKind = '-';        ///< 'd' for a folder, 'f' for a file, '-' for none: one of the newest rows
    long long witnessId = 0;       ///< its id
    std::uint64_t witnessHash = 0; ///< of its path
};
