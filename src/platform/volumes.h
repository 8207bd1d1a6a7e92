// The storage volumes, in their order: as configured, or as they are mounted.
// Below: config.h, volume_names.h. Above: ORBASpaceInfoEnum.
#pragma once

#include "platform.h"

// Lists the mount points of `mount_table` (a file of the form of /proc/self/mountinfo) that are
// called volume<N>, by N. *list is null before, and the caller's to free, also on failure.
// 0, or -1 when the table cannot be read or there is no memory.
int list_mounted_volumes(const char* mount_table, ORBASpaceInfo** list);
