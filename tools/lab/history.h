// The kinds of transaction that have a block of their own: ALLOC, XCOPY, MOVES, UNMAP.
// Below: transaction.h, extents.h, choose.h. Above: workload.h.
#pragma once

#include "lab/transaction.h"

namespace lab {

// Each adds at least one block for something in this volume, or adds nothing and returns false when
// nothing suits. The transaction has room for a block.
bool allocate(model* m, transaction* t, size_t volume_index);
bool copy(model* m, transaction* t, size_t volume_index);
bool move_to_map(model* m, transaction* t, size_t volume_index);
bool move_to_buffer(model* m, transaction* t, size_t volume_index);
bool unmap_shared(model* m, transaction* t, size_t volume_index);
// A move inside one map, and behind it the newer record of that map that it needs.
// The transaction has room for two blocks.
bool move_inside(model* m, transaction* t, size_t volume_index);

}  // namespace lab
