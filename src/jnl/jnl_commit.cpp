#include "jnl/jnl_commit.h"

#include <cstdarg>
#include <cstdio>

#include "jnl/jnl_block.h"
#include "print.h"
#include "store/keep_journal.h"

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

int commit_start_block(const jnl_file* jnl, uint64_t* pos, jnl_block* block, uint64_t total) {
    trace("MESG: search start block from %llu\n", ull(*pos));
    if (jnl_block_read(jnl, block, *pos) < 0) {
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
        if (jnl_block_read(jnl, block, *pos) < 0 || block->ej_header.jnl_transid != trans_id) {
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

int commit_last_block(const jnl_file* jnl, uint64_t* pos, jnl_block* block, uint64_t total) {
    if (jnl_block_read(jnl, block, *pos) < 0) {
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
        if (jnl_block_read(jnl, block, *pos) < 0) {
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

int find_complete_commit(const jnl_file* jnl, uint64_t n, jnl_commit* commit, uint64_t total) {
    if (jnl->fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    commit->start = n;
    if (commit_start_block(jnl, &commit->start, &commit->start_block, total) != 0) {
        trace("MESG: No start block in this commit, block_num %llu\n", ull(n));
        return -1;
    }
    commit->last = n;
    trace("MESG: search last block from %llu\n", ull(n));
    if (commit_last_block(jnl, &commit->last, &commit->last_block, total) != 0) {
        trace("MESG: No last block in this commit, block_num %llu\n", ull(n));
        return -1;
    }
    return 0;
}

int prev_complete_commit(const jnl_file* jnl, uint64_t n, jnl_commit* commit, uint64_t total,
                         uint32_t trans_id) {
    if (jnl->fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    commit->last = n;
    if (jnl_block_read(jnl, &commit->last_block, n) < 0) {
        trace("MESG: Can't read jnl commit, @block %llu\n", ull(n));
        return -1;
    }
    const jnl_block_header last = commit->last_block.ej_header;
    trace("MESG: blk-trans_id %u, jnl-last-trans_id %u\n", last.jnl_transid,
          jnl->header.jnl_last_trans_id);
    if (last.jnl_flags != JNL_FLAG_LAST && last.jnl_transid != trans_id - 1) {
        trace("MESG: No last block in this commit, @last_num %llu\n", ull(n));
        return -1;
    }
    commit->start = n;
    trace("MESG: search start block from %llu\n", ull(n));
    if (commit_start_block(jnl, &commit->start, &commit->start_block, total) != 0) {
        trace("MESG: No start block in this commit, @start_num %llu\n", ull(commit->start));
        return -1;
    }
    trace("MESG: ## Found @start_num %llu @last_num %llu\n", ull(commit->start), ull(commit->last));
    return 0;
}

// The newest complete transaction. Its steps log under its name.
static constexpr const char* LAST_NAME = "last_complete_commit";

struct last_search {
    const jnl_file* jnl;
    jnl_commit* commit;
    uint64_t total;
};

static bool never_used(const jnl_header* header) {
    return header->jnl_last_trans_id == 0 && header->jnl_last_record_start == 0 &&
           header->jnl_last_flush_errno == 0 && header->jnl_last_recovery_error == 0 &&
           header->jnl_empty_record_start == 0;
}

static uint32_t start_id(const jnl_commit* commit) {
    return commit->start_block.ej_header.jnl_transid;
}

static int found(const jnl_commit* commit) {
    printf("TARN_INFO: JOURNAL-LAST-COMMIT from %llu (id=%u) to %llu (id=%u)\n", ull(commit->start),
           start_id(commit), ull(commit->last), commit->last_block.ej_header.jnl_transid);
    return 1;
}

// The expected transaction is not complete. That is not an error if it is the first one ever.
static int conflict_end(const jnl_file* jnl) {
    const jnl_header& header = jnl->header;
    return header.jnl_last_trans_id == 1 && header.jnl_last_record_start == 0 ? 0 : -1;
}

// The transaction at `block`, whose id is `id`; or, when that one is incomplete, the one before.
static int commit_at_or_before(const last_search& search, uint64_t block, uint32_t id) {
    const auto& [jnl, commit, total] = search;
    if (find_complete_commit(jnl, block, commit, total) == 0) {
        return found(commit);
    }
    log_err_as(LAST_NAME, "JOURNAL-CONFLICT Can't find out last complete commit, @block %llu\n",
               ull(block));
    const uint64_t before = jnl_previous_block(block, total);
    if (find_complete_commit(jnl, before, commit, total) != 0) {
        log_err_as(LAST_NAME, "JOURNAL-CONFLICT Can't find out last complete commit, @block %llu\n",
                   ull(before));
        return conflict_end(jnl);
    }
    if (start_id(commit) != id - 1) {
        log_err_as(LAST_NAME,
                   "JOURNAL-CONFLICT Can't find out last complete commit, trans_id %u @block_num "
                   "%llu is not equal to trans_id %u\n",
                   start_id(commit), ull(before), id - 1);
        return conflict_end(jnl);
    }
    return found(commit);
}

static int cannot_read() {
    log_err_as(LAST_NAME, "Can't read last jnl commit\n");
    return -1;
}

// Whether a block that is not good counts as never written: it has no checksum. A block that could
// not be read may hold anything.
static bool counts_as_unwritten(jnl_block_state state, const jnl_block* block) {
    return state != jnl_block_state::unread && block->checksum == 0;
}

// The block that the header names was never written: the record ends in the one before it.
static int commit_before_unwritten(const last_search& search, uint64_t record) {
    const auto& [jnl, commit, total] = search;
    const uint64_t before = jnl_previous_block(record, total);
    printf("TARN_INFO: Re-Search last commit from %llu\n", ull(before));
    const jnl_block_state state = jnl_block_get(jnl, &commit->last_block, before);
    if (state == jnl_block_state::good) {
        return commit_at_or_before(search, before, commit->last_block.ej_header.jnl_transid);
    }
    return counts_as_unwritten(state, &commit->last_block) ? conflict_end(jnl) : cannot_read();
}

// The block that the header names belongs to another transaction than the header says.
static int commit_before_conflict(const last_search& search, uint64_t record) {
    const auto& [jnl, commit, total] = search;
    const uint32_t last_id = jnl->header.jnl_last_trans_id;
    log_err_as(LAST_NAME,
               "JOURNAL-CONFLICT trans_id %u @block %llu is not equal to jnl_last_trans_id %u "
               "@jnl_last_record_start %llu\n",
               commit->last_block.ej_header.jnl_transid, ull(record), last_id, ull(record));
    const uint64_t before = jnl_previous_block(record, total);
    if (find_complete_commit(jnl, before, commit, total) != 0) {
        log_err_as(LAST_NAME, "Can't find out last complete commit @block %llu\n", ull(before));
        return conflict_end(jnl);
    }
    if (start_id(commit) != last_id - 1) {
        log_err_as(LAST_NAME,
                   "Can't find out last complete commit, trans_id %u @block_num %llu is not equal "
                   "to trans_id %u\n",
                   start_id(commit), ull(commit->start), last_id - 1);
        return conflict_end(jnl);
    }
    return found(commit);
}

// Searches from the block that the header names. Returns the same as last_complete_commit.
static int search_from(const last_search& search, uint64_t record) {
    const auto& [jnl, commit, total] = search;
    const jnl_block_state state = jnl_block_get(jnl, &commit->last_block, record);
    if (state != jnl_block_state::good) {
        return counts_as_unwritten(state, &commit->last_block)
                   ? commit_before_unwritten(search, record)
                   : cannot_read();
    }
    const uint32_t id = commit->last_block.ej_header.jnl_transid;
    if (id != jnl->header.jnl_last_trans_id) {
        return commit_before_conflict(search, record);
    }
    return commit_at_or_before(search, record, id);
}

int last_complete_commit(const jnl_file* jnl, jnl_commit* commit, uint64_t total) {
    if (jnl->fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    if (never_used(&jnl->header)) {
        return 0;
    }
    if (total == 0) {
        log_err("jnl_total_count is 0\n");
        return -1;
    }
    const uint64_t record = jnl->header.jnl_last_record_start;
    if (record >= total) {
        log_err("jnl_last_record_start %llu is past the ring of %llu blocks\n", ull(record),
                ull(total));
        return -1;
    }
    printf("TARN_INFO: jnl_last_record_start = %llu\n", ull(record));
    const uint64_t unread_before = keep_journal_failures().count;
    const int result = search_from({jnl, commit, total}, record);
    // An older commit must not be returned if a newer one could not be read.
    return result >= 0 && keep_journal_failures().count != unread_before ? cannot_read() : result;
}
