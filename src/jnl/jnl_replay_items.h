// What the kinds of blocks have in common when they are replayed: the state of the walk, and one
// item at a time with its seen test and its messages. Below: the three kinds' replay operations,
// jnl_seen_keys.h. Above: jnl_replay_blocks.h.
#pragma once

#include "jnl/jnl_format.h"
#include "jnl/jnl_seen_keys.h"

struct jnl_replay_walk {
    int32_t type;         // of the file that gets the changes
    jnl_seen_keys* seen;  // the caller's
    bool mapped_count_set;
    bool fri_var_set;
};

// The block that is being replayed.
struct jnl_replay_block {
    jnl_replay_walk* walk;
    const char* name;  // of the block's kind, in messages
    const jnl_block* block;
    uint64_t block_num;
    // Of its first item. An item's rank depends only on its place in the block, so it is the same
    // in every pass.
    uint64_t rank;
};

// All return 0, or -1, logged, unless said otherwise.

// Returns true if the key has a newer image: the item is skipped.
bool replay_is_seen(const jnl_replay_block* at, uint64_t key, uint64_t rank);
int replay_map_image(const jnl_replay_block* at, uint64_t lea, map_entry image);  // no seen test
int replay_tbl_item(const jnl_replay_block* at, uint64_t lpa, tbl_entry image, uint64_t rank);
// If the record initialises the group, builds its free list, before the seen test, deliberate.
int replay_fri_item(const jnl_replay_block* at, uint64_t group, fri_entry old_image,
                    fri_entry new_image, uint64_t rank);
// The values of the whole file: only the newest record sets them.
int replay_mapped_count(const jnl_replay_block* at, uint64_t mapped_count);
int replay_fri_var(const jnl_replay_block* at, uint64_t free_count, uint64_t group_head);
