// One block of the ring: reading it with its checksum test, and the report on its counts.
// Below: jnl_file.h, jnl_kinds.h. Above: the commit search, the walk, the dumps.
#pragma once

#include "jnl/jnl_file.h"
#include "jnl/jnl_format.h"

// What a read of a block found.
enum class jnl_block_state {
    good,
    empty,    // all zero: never written
    damaged,  // its checksum differs
    unread,   // the read failed, or stopped before the end of block and file
};

// Reads block `n` of `jnl` into `block`, which holds what was read even after a failure, with the
// stored checksum in place. A block that is not good is logged; `unread` is a reason to keep the
// journal.
jnl_block_state jnl_block_get(const jnl_file* jnl, jnl_block* block, uint64_t n);
// The same, but returns the bytes read, or -1 for a block that is not good.
int jnl_block_read(const jnl_file* jnl, jnl_block* block, uint64_t n);
inline int jnl_block_read(jnl_block* block, uint64_t n) {  // of the open journal
    return jnl_block_read(&current_jnl, block, n);
}

// Log the invalid counts and entry types of a block. Nothing is rejected: a caller that needs a
// limit enforces it. m2d, the other direction, ignores history blocks, and examines all seven
// entries of a FILE block whatever its count, deliberate.
void tarn_jnl_block_d2m(const jnl_block* block);
void tarn_jnl_block_m2d(const jnl_block* block);
int tarn_jnl_block_entry_d2m(const jnl_file_entry* entry);  // 0, or -1, logged
int tarn_jnl_block_entry_m2d(const jnl_file_entry* entry);

// Neighbours in a ring of `total` blocks, `total` not 0; nothing overflows.
constexpr uint64_t jnl_next_block(uint64_t n, uint64_t total) {
    return n % total + 1 == total ? 0 : n % total + 1;
}
constexpr uint64_t jnl_previous_block(uint64_t n, uint64_t total) {
    return n == 0 ? total - 1 : (n - 1) % total;
}
