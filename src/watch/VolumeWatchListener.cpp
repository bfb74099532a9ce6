#include "watch/VolumeWatchListener.h"

VolumeWatchListener::~VolumeWatchListener() = default;
