// The one walk over committed blocks, newest first, that verification and replay share: budget,
// wrap mark and end of history are known here and nowhere else. Below: jnl_commit.h.
#pragma once

#include "jnl/jnl_format.h"

// Examines one block; `rank` is the first of 64 ranks that are its items', newer blocks having
// smaller ones. 0 goes on; anything else ends the walk with -1.
using jnl_block_visitor = int (*)(void* context, const jnl_block* block, uint64_t block_num,
                                  uint64_t rank);

// Visits each block of each complete transaction inside the budget, from the newest transaction's
// last block back. Returns 0 when history, ring or budget is at its end (or there is nothing);
// -1 when the search, a block or the visitor failed, logged.
int jnl_walk_commits(jnl_block_visitor visit, void* context);
