// What verification and replay share: the one walk over committed blocks, newest first, which
// handles budget, wrap mark and end of history; and the visit to the entries of one FILE block that
// belong to a loaded file, newest first. Below: jnl_commit.h, the three kinds' files.
#pragma once

#include <functional>

#include "jnl/jnl_file.h"
#include "jnl/jnl_format.h"

// Ranks of one block's items; a MOVES block has the most, 100.
constexpr uint64_t JNL_BLOCK_RANKS = 128;
static_assert(2 * JNL_MOVES_MAX <= JNL_BLOCK_RANKS);

// Examines one block. `rank` is the first of JNL_BLOCK_RANKS ranks that belong to its items; newer
// blocks have smaller ones. 0 continues the walk; anything else ends it with -1.
using jnl_block_visitor = int (*)(void* context, const jnl_block* block, uint64_t block_num,
                                  uint64_t rank);

// Visits each block of the newest `budget` complete transactions of `jnl`, from the newest one's
// last block back. `name` is the operation named in messages. Returns 0 at the end of history, ring
// or budget (or if there is nothing to visit); -1 if the search, a block or the visitor failed, or
// if damaged transactions cover more blocks than the ring has, logged.
int jnl_walk_commits(const jnl_file* jnl, uint32_t budget, const char* name,
                     jnl_block_visitor visit, void* context);

// The uuid of the loaded table (type 1), index (2 and 3) or map (4); null for any other type.
const uint8_t* jnl_target_uuid(int32_t type);

// Examines one entry: 0, or -1, logged.
using jnl_entry_visitor = std::function<int(const jnl_file_entry* entry, uint64_t rank)>;

// The entries of a FILE block, 0..7; -1 for a count over the maximum, logged for `name`.
int jnl_entry_count(const char* name, const jnl_block* block);
// Visits those of the first `entry_count` entries that concern the loaded file of `type`, the last
// one first; for an index, both its own entries and those of its variable node. `rank` is that of
// the last entry. Returns the number of the entry that failed, logged for `name`; -1 if none did.
int jnl_visit_entries(const char* name, int32_t type, const jnl_block* block, int entry_count,
                      uint64_t rank, const jnl_entry_visitor& visit);
