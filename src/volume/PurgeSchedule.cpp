#include "volume/PurgeSchedule.h"

PurgeSchedule::PurgeSchedule(int seconds)
    : threshold(static_cast<unsigned>(seconds))
{
}

bool PurgeSchedule::isDue(int now, int recorded) const
{
    return static_cast<int>(2U * threshold + static_cast<unsigned>(recorded)) <= now;
}

int PurgeSchedule::timeToRecord(int now) const
{
    // Not `now`, on purpose: isDue() adds the threshold twice, so the next purge is due one threshold from now.
    return static_cast<int>(static_cast<unsigned>(now) - threshold);
}
