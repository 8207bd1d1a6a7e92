// The swap: a rebuilt table and index take the place of the live ones, which stay as backups. At no
// point is a live file without a name, whatever a power failure takes back. Below: swap_marker.h,
// work_dir.h. Above: one_key.h.
#pragma once

#include "volume/swap_marker.h"

// Goes through the swap from wherever it stopped; the marker was found, or begun here. 0: both live
// files are the rebuilt ones, the marker is gone. -1 at the first step that failed, logged: the
// marker and what was not swapped in yet stay for the next run. A file that is not the one of the
// marker is never moved.
int table_swap_finish(const table_swap* swap);
