// The full relink: every group's free list and the list of groups, rebuilt from the table.
// Below: fri_entries.h, tbl_freelist.h. Above: finalize and reconstruct.
#pragma once

#include <cstddef>

#include "tbl/tbl_freelist.h"

// Recounts every initialised group of the current index from the current table, chains the groups
// that have free extents in ascending order and saves the index's header. Prints its progress.
// 0, or -1 at the first failure, logged; what was written stays written. A group count past the
// capacity is refused before anything is. Whether the header was saved is only logged.
// `linked`, ascending by group, or null: groups whose free list is in the table already, as their
// row says; they are not looked at again.
int tarn_link_fri_group(const linked_groups* linked = nullptr);
