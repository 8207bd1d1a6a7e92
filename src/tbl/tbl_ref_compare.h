// Comparison of a rebuild's reference counts, while they are in memory, with a table on disk: the
// rebuilt table need not be written first. Nothing is logged here. Below:
// tbl_ref_counts.h, tbl_group_image.h. Above: the import of a volume.
#pragma once

#include "tbl/tbl_ref_counts.h"

// Whether the table open as `fd` says of every extent of the groups below `group_count`, which an
// index can hold, what was counted: free, or used by equally many. False even if that is unknown:
// the table cannot be read, or some references are not in memory. Orders the groups: nothing may be
// counted afterwards.
bool tbl_ref_counts_agree(tbl_ref_counts* counts, int fd, uint64_t group_count);
