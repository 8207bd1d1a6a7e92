// The kinds of blocks, one row each: the kind's name, its counts and their maxima, its fields, and
// the functions that check, replay and dump one block of it. A new kind is a row here and its
// functions. Below: jnl_format.h. Above: code that handles a block by its kind, and the functions
// in the rows, which are declared in the headers of their operations.
#pragma once

#include <span>

#include "jnl/jnl_format.h"

struct jnl_check_walk;
struct jnl_kind;
struct jnl_replay_block;

constexpr uint32_t JNL_BLOCK_FILE = 0;  // only in the table: any type without a row of its own

struct jnl_count {
    const char* name;  // in messages; null: the kind has no such count
    size_t offset;     // of its one byte in the block
    unsigned most;     // a block with more is reported
};

// Byte offsets, from the start of a history block, of its extents. 0: the kind has none.
struct jnl_slots {
    size_t src_lea;  // first lea of the source, u64
    size_t dst_lea;  // first lea of the destination, u64
    size_t map;      // array of map entries
    size_t tbl;      // array of table entries
};

struct jnl_kind {
    uint32_t type;                      // JNL_BLOCK_*
    const char* name;                   // as it is printed
    jnl_count counts[2];                // the first is the number of slots that a dump lists
    std::span<const field_row> fields;  // of the record at byte JNL_RECORD_OFFSET
    jnl_slots slots;
    const char* replay_name;                    // of the replay in messages
    int (*replay)(const jnl_replay_block* at);  // 0, or -1, logged
    int (*check)(jnl_check_walk* walk, const jnl_block* block, uint64_t block_num, uint64_t rank);
    void (*dump)(const jnl_kind* kind, const jnl_block* block, int detail);
};

// The row of the type word at byte 32 of a block; never null.
const jnl_kind* jnl_kind_of(uint32_t type);
// Whether the block has entries of files, which only FILE blocks have.
bool jnl_has_entries(const jnl_kind* kind);

// A copy of the number or entry at byte `offset` of `block`, which must lie in it.
template <typename value>
value jnl_value_at(const jnl_block* block, size_t offset) {
    value copy;
    memcpy(&copy, static_cast<const uint8_t*>(static_cast<const void*>(block)) + offset,
           sizeof copy);
    return copy;
}
