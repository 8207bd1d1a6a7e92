#include "jnl/jnl_commit.h"

#include <cstdarg>
#include <cstdio>

#include "jnl/jnl_block.h"
#include "jnl/jnl_file.h"
#include "print.h"
#include "store/log.h"

int jnl_search_quiet = 1;

[[gnu::format(printf, 1, 2)]] static void trace(const char* format, ...) {
    if (jnl_search_quiet != 0) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
}

int commit_start_block(uint64_t* pos, jnl_block* block, uint64_t total) {
    trace("MESG: search start block from %llu\n", ull(*pos));
    if (jnl_block_read(block, *pos) < 0) {
        return -1;
    }
    const uint32_t trans_id = block->ej_header.jnl_transid;
    uint16_t seq = block->ej_header.jnl_seq_num;
    for (uint64_t steps = 0; seq != 0; steps++) {
        if (steps == total) {
            log_err("no start block in a lap of %llu blocks\n", ull(total));
            return -1;
        }
        *pos = jnl_previous_block(*pos, total);
        if (jnl_block_read(block, *pos) < 0 || block->ej_header.jnl_transid != trans_id) {
            return -1;
        }
        seq--;
        if (block->ej_header.jnl_seq_num != seq) {
            log_err("blk->ej_header.seq_num %u is not match %u\n", block->ej_header.jnl_seq_num,
                    seq);
            return -1;
        }
    }
    return 0;
}

int commit_last_block(uint64_t* pos, jnl_block* block, uint64_t total) {
    if (jnl_block_read(block, *pos) < 0) {
        return -1;
    }
    const uint32_t trans_id = block->ej_header.jnl_transid;
    uint16_t seq = block->ej_header.jnl_seq_num;
    for (uint64_t steps = 0; block->ej_header.jnl_flags != JNL_FLAG_LAST; steps++) {
        if (steps == total) {
            log_err("no last block in a lap of %llu blocks\n", ull(total));
            return -1;
        }
        *pos = jnl_next_block(*pos, total);
        if (jnl_block_read(block, *pos) < 0) {
            return -1;
        }
        if (block->ej_header.jnl_transid != trans_id) {
            log_err("blk->jnl_transid %u is not match %u\n", block->ej_header.jnl_transid,
                    trans_id);
            return -1;
        }
        seq++;  // 65535 is followed by 0
        if (block->ej_header.jnl_seq_num != seq) {
            log_err("blk->ej_header.seq_num %u is not match %u\n", block->ej_header.jnl_seq_num,
                    seq);
            return -1;
        }
    }
    return 0;
}

int find_complete_commit(uint64_t n, jnl_commit* commit, uint64_t total) {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    commit->start = n;
    if (commit_start_block(&commit->start, &commit->start_block, total) != 0) {
        trace("MESG: No start block in this commit, block_num %llu\n", ull(n));
        return -1;
    }
    commit->last = n;
    trace("MESG: search last block from %llu\n", ull(n));
    if (commit_last_block(&commit->last, &commit->last_block, total) != 0) {
        trace("MESG: No last block in this commit, block_num %llu\n", ull(n));
        return -1;
    }
    return 0;
}

int prev_complete_commit(uint64_t n, jnl_commit* commit, uint64_t total, uint32_t trans_id) {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    commit->last = n;
    if (jnl_block_read(&commit->last_block, n) < 0) {
        trace("MESG: Can't read jnl commit, @block %llu\n", ull(n));
        return -1;
    }
    const jnl_block_header last = commit->last_block.ej_header;
    trace("MESG: blk-trans_id %u, jnl-last-trans_id %u\n", last.jnl_transid,
          current_jnl.header.jnl_last_trans_id);
    if (last.jnl_flags != JNL_FLAG_LAST && last.jnl_transid != trans_id - 1) {
        trace("MESG: No last block in this commit, @last_num %llu\n", ull(n));
        return -1;
    }
    commit->start = n;
    trace("MESG: search start block from %llu\n", ull(n));
    if (commit_start_block(&commit->start, &commit->start_block, total) != 0) {
        trace("MESG: No start block in this commit, @start_num %llu\n", ull(commit->start));
        return -1;
    }
    trace("MESG: ## Found @start_num %llu @last_num %llu\n", ull(commit->start), ull(commit->last));
    return 0;
}
