// Transactions that are recorded entry by entry: freeing, and other changes of single entries.
// Below: transaction.h, extents.h, choose.h. Above: history.h, workload.h.
#pragma once

#include "lab/transaction.h"

namespace lab {

// Each function adds at least one FILE entry for this volume. If no place is suitable, it adds
// nothing and returns false. The transaction must have room for a block. Drops references of the
// unmap buffer and frees extents that lose their last reference.
bool free_from_buffer(model* m, transaction* t, size_t volume_index);
// Changes a reserved bit of one entry of a map.
bool touch_entry(model* m, transaction* t, size_t volume_index);
void touch_entry_of(model* m, transaction* t, size_t map_index);
// Makes an unmapped entry of a map share the extent of another entry.
bool share_extent(model* m, transaction* t, size_t volume_index);
// Initialises the group at the end of the list before its first allocation.
bool prepare_group(model* m, transaction* t, size_t volume_index);

}  // namespace lab
