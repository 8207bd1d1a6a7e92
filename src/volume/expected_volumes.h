// Whether the volumes that a replay is for are mounted: without one of them, its files would miss
// what the journal has for them. Below: descriptor.h, the platform's list of volumes. Above:
// start-up replay, and the companion programs that replay as it does.
#pragma once

#include "platform.h"

// `listed` and `spaces`: what ORBASpaceInfoEnum returned. Returns false, logged, if a volume that
// the configuration names does not exist or is an empty directory, which is a mount point without
// its mount, or if there is no volume at all. If the listing failed, true: the next one reports it.
bool all_volumes_there(int listed, const ORBASpaceInfo* spaces);
