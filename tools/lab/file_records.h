// The transactions that are recorded entry by entry: freeing, and whatever else changes one entry
// at a time. Below: transaction.h, extents.h, choose.h. Above: history.h, workload.h.
#pragma once

#include "lab/transaction.h"

namespace lab {

// Each adds at least one FILE entry for something in this volume, or adds nothing and returns false
// when nothing suits. The transaction has room for a block.
// References out of the unmap buffer: an extent that loses its last one is free.
bool free_from_buffer(model* m, transaction* t, size_t volume_index);
// One entry of a map changes a bit that is not the service's.
bool touch_entry(model* m, transaction* t, size_t volume_index);
void touch_entry_of(model* m, transaction* t, size_t map_index);
// One unmapped entry of a map comes to share another entry's extent.
bool share_extent(model* m, transaction* t, size_t volume_index);
// The group at the end of the list is initialised ahead of its first allocation.
bool prepare_group(model* m, transaction* t, size_t volume_index);

}  // namespace lab
