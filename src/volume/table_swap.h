// The swap: a rebuilt table and index take the place of the live ones, which stay as backups. A
// live file has a name at every moment, even if a power failure undoes the last steps. Below:
// swap_marker.h, work_dir.h. Above: one_key.h.
#pragma once

#include "volume/swap_marker.h"

// Continues the swap from where it stopped; `swap` was found or begun. 0: both live files are the
// rebuilt ones, the marker is gone. -1 at the first step that failed, logged: the marker and what
// was not swapped in yet stay for the next run. A file that does not match the marker is never
// moved.
int table_swap_finish(const table_swap* swap);
