// The groups of a volume: table blocks, entries against the references counted, free lists against
// the index. Below: tbl_group_image.h, free_list.h, tbl_ref_counts.h. Above: the check of a volume.
#pragma once

#include "ctl/check/state.h"

// Blocks of the volume's table that a pass looks at.
uint64_t table_blocks(const volume_check& volume);

// The groups of a window of the counts; after the last window, with `rest`, the groups of the
// regions that no reference is in. Each group is looked at once. `progress` is of table_blocks()
// units.
void check_groups(check_state* state, volume_check* volume, const ref_counts* counts, bool rest,
                  progress_part* progress);
// The same without references: for a look at headers, tables and lists only.
void check_groups_alone(check_state* state, volume_check* volume, progress_part* progress);
