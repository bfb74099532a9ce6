#include "core/StopRequest.h"

#include "core/SignalMask.h"

bool StopRequest::isMadeOrPending()
{
    if (!made && isStopSignalPending())
        made = true;
    return made;
}
