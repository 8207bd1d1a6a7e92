// The commit search: the newest transaction of a journal that was written completely, and the one
// before a given one. Stateless, writes nothing. Below: jnl_block.h. Above: the walk.
#pragma once

#include "jnl/jnl_file.h"
#include "jnl/jnl_format.h"

// 1: no trace lines ("MESG: ..."). Set once at start and never cleared.
extern int jnl_search_quiet;

// A transaction in the ring: its first and last block, and what was read there.
struct jnl_commit {
    uint64_t start;
    uint64_t last;
    jnl_block start_block;
    jnl_block last_block;
};

// `total` is the number of blocks of the ring. Each search has two forms: for the journal `jnl`,
// and for current_jnl.

// Moves *pos back to the first, or forward to the last, block of the transaction that holds it,
// one lap of the ring at most; `block` holds the block at *pos. 0, or -1.
int commit_start_block(const jnl_file* jnl, uint64_t* pos, jnl_block* block, uint64_t total);
int commit_last_block(const jnl_file* jnl, uint64_t* pos, jnl_block* block, uint64_t total);
inline int commit_start_block(uint64_t* pos, jnl_block* block, uint64_t total) {
    return commit_start_block(&current_jnl, pos, block, total);
}
inline int commit_last_block(uint64_t* pos, jnl_block* block, uint64_t total) {
    return commit_last_block(&current_jnl, pos, block, total);
}

// Finds the whole transaction that holds block `n`. 0, or -1.
int find_complete_commit(const jnl_file* jnl, uint64_t n, jnl_commit* commit, uint64_t total);
inline int find_complete_commit(uint64_t n, jnl_commit* commit, uint64_t total) {
    return find_complete_commit(&current_jnl, n, commit, total);
}
// Finds the transaction that ends at block `n`, just before the one with id `trans_id`. 0, or -1 at
// the end of the history.
int prev_complete_commit(const jnl_file* jnl, uint64_t n, jnl_commit* commit, uint64_t total,
                         uint32_t trans_id);
inline int prev_complete_commit(uint64_t n, jnl_commit* commit, uint64_t total, uint32_t trans_id) {
    return prev_complete_commit(&current_jnl, n, commit, total, trans_id);
}
// Finds the newest complete transaction; one incomplete newer one is tolerated. 1 if found; 0 if
// the journal holds nothing to process; -1 on failure, logged.
int last_complete_commit(const jnl_file* jnl, jnl_commit* commit, uint64_t total);
inline int last_complete_commit(jnl_commit* commit, uint64_t total) {
    return last_complete_commit(&current_jnl, commit, total);
}
