// Verification: does the loaded table (1), index (2) or map (4) already hold every change that the
// journal's recent transactions recorded for it? Below: jnl_walk.h, jnl_seen_keys.h, the entry
// checks of the three kinds. Nothing is written.
#pragma once

#include "jnl/jnl_format.h"

struct jnl_check_walk;

// 0 if every examined entry matches; -1 at the first one that does not or on a failure, logged.
int jnl_file_type_check(int32_t type);
// Checks the entries of one block of that walk that belong to the file of `walk`. 0, or -1, logged.
int jnl_check_entries(jnl_check_walk* walk, const jnl_block* block, uint64_t block_num,
                      uint64_t rank);
