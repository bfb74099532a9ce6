#include "core/StopRequest.h"

#include "core/SignalMask.h"

bool StopRequest::isMadeOrPending() const { return made || isStopSignalPending(); }
