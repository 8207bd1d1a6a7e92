// The kinds of transaction that have a block of their own: ALLOC, XCOPY, MOVES, UNMAP.
// Below: transaction.h, extents.h, choose.h. Above: workload.h.
#pragma once

#include "lab/transaction.h"

namespace lab {

// Each function adds at least one block for this volume. If no place is suitable, it adds nothing
// and returns false. The transaction must have room for a block.
bool allocate(model* m, transaction* t, size_t volume_index);
bool copy(model* m, transaction* t, size_t volume_index);
bool move_to_map(model* m, transaction* t, size_t volume_index);
bool move_to_buffer(model* m, transaction* t, size_t volume_index);
bool unmap_shared(model* m, transaction* t, size_t volume_index);
// The same for one map, which is not the unmap buffer: moves a range to the buffer, or unmaps one.
bool move_from(model* m, transaction* t, size_t map_index);
bool unmap_shared_of(model* m, transaction* t, size_t map_index);
// Adds a move inside one map, followed by the newer record of that map that it needs. If the
// transaction has no room for two blocks, it adds nothing and returns false.
bool move_inside(model* m, transaction* t, size_t volume_index);

}  // namespace lab
