#include "volume/VolumeAccess.h"

#include "core/StopRequest.h"

#include <syslog.h>

void VolumeAccess::logFailedWalk() const
{
    if (!stopRequest.isMadeOrPending()) // work that a stop interrupts has not failed
        syslog(LOG_LOCAL5 | LOG_ERR, "Got an exception during the walking of volumeManager %s\n", name.c_str());
}
