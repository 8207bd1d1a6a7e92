// The one walk over committed blocks, newest first, that verification and replay share: budget,
// wrap mark and end of history are known here and nowhere else. Below: jnl_commit.h.
#pragma once

#include "jnl/jnl_format.h"

// Ranks of one block's items; a MOVES block has the most, 100.
constexpr uint64_t JNL_BLOCK_RANKS = 128;
static_assert(2 * JNL_MOVES_MAX <= JNL_BLOCK_RANKS);

// Examines one block; `rank` is the first of JNL_BLOCK_RANKS ranks that are its items', newer
// blocks having smaller ones. 0 goes on; anything else ends the walk with -1.
using jnl_block_visitor = int (*)(void* context, const jnl_block* block, uint64_t block_num,
                                  uint64_t rank);

// Visits each block of each complete transaction inside the budget, from the newest transaction's
// last block back. `name` is the operation that messages name. Returns 0 when history, ring or
// budget is at its end (or there is nothing); -1 when the search, a block or the visitor failed,
// or when damaged transactions would lead through more blocks than the ring has, logged.
int jnl_walk_commits(const char* name, jnl_block_visitor visit, void* context);
