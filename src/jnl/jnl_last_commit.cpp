// The newest complete transaction of the open journal. Belongs to jnl_commit.h.
#include <cstdio>

#include "jnl/jnl_block.h"
#include "jnl/jnl_commit.h"
#include "jnl/jnl_file.h"
#include "print.h"
#include "store/keep_journal.h"

static constexpr const char* NAME = "last_complete_commit";  // its steps speak in its name

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

// No complete transaction where one was to be: no failure while the first one never completed.
static int conflict_end() {
    const jnl_header& header = current_jnl.header;
    return header.jnl_last_trans_id == 1 && header.jnl_last_record_start == 0 ? 0 : -1;
}

// The transaction at `block`, whose id is `id`; or, when that one is incomplete, the one before.
static int commit_at_or_before(uint64_t block, uint32_t id, jnl_commit* commit, uint64_t total) {
    if (find_complete_commit(block, commit, total) == 0) {
        return found(commit);
    }
    log_err_as(NAME, "JOURNAL-CONFLICT Can't find out last complete commit, @block %llu\n",
               ull(block));
    const uint64_t before = jnl_previous_block(block, total);
    if (find_complete_commit(before, commit, total) != 0) {
        log_err_as(NAME, "JOURNAL-CONFLICT Can't find out last complete commit, @block %llu\n",
                   ull(before));
        return conflict_end();
    }
    if (start_id(commit) != id - 1) {
        log_err_as(NAME,
                   "JOURNAL-CONFLICT Can't find out last complete commit, trans_id %u @block_num "
                   "%llu is not equal to trans_id %u\n",
                   start_id(commit), ull(before), id - 1);
        return conflict_end();
    }
    return found(commit);
}

static int cannot_read() {
    log_err_as(NAME, "Can't read last jnl commit\n");
    return -1;
}

// Whether a block that is not good may be taken for one that was never written: it carries no
// checksum. What the disk did not give back may be anything.
static bool decides_nothing(jnl_block_state state, const jnl_block* block) {
    return state != jnl_block_state::unread && block->checksum == 0;
}

// The block that the header names was never written: the record goes up to the one before it.
static int commit_before_unwritten(uint64_t record, jnl_commit* commit, uint64_t total) {
    const uint64_t before = jnl_previous_block(record, total);
    printf("TARN_INFO: Re-Search last commit from %llu\n", ull(before));
    const jnl_block_state state = jnl_block_get(&commit->last_block, before);
    if (state == jnl_block_state::good) {
        return commit_at_or_before(before, commit->last_block.ej_header.jnl_transid, commit, total);
    }
    return decides_nothing(state, &commit->last_block) ? conflict_end() : cannot_read();
}

// The block that the header names belongs to another transaction than the header says.
static int commit_before_conflict(uint64_t record, jnl_commit* commit, uint64_t total) {
    const uint32_t last_id = current_jnl.header.jnl_last_trans_id;
    log_err_as(NAME,
               "JOURNAL-CONFLICT trans_id %u @block %llu is not equal to jnl_last_trans_id %u "
               "@jnl_last_record_start %llu\n",
               commit->last_block.ej_header.jnl_transid, ull(record), last_id, ull(record));
    const uint64_t before = jnl_previous_block(record, total);
    if (find_complete_commit(before, commit, total) != 0) {
        log_err_as(NAME, "Can't find out last complete commit @block %llu\n", ull(before));
        return conflict_end();
    }
    if (start_id(commit) != last_id - 1) {
        log_err_as(NAME,
                   "Can't find out last complete commit, trans_id %u @block_num %llu is not equal "
                   "to trans_id %u\n",
                   start_id(commit), ull(commit->start), last_id - 1);
        return conflict_end();
    }
    return found(commit);
}

// From the block that the header names. As last_complete_commit.
static int search_from(uint64_t record, jnl_commit* commit, uint64_t total) {
    const jnl_block_state state = jnl_block_get(&commit->last_block, record);
    if (state != jnl_block_state::good) {
        return decides_nothing(state, &commit->last_block)
                   ? commit_before_unwritten(record, commit, total)
                   : cannot_read();
    }
    const uint32_t id = commit->last_block.ej_header.jnl_transid;
    if (id != current_jnl.header.jnl_last_trans_id) {
        return commit_before_conflict(record, commit, total);
    }
    return commit_at_or_before(record, id, commit, total);
}

int last_complete_commit(jnl_commit* commit, uint64_t total) {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    if (never_used(&current_jnl.header)) {
        return 0;
    }
    if (total == 0) {
        log_err("jnl_total_count is 0\n");
        return -1;
    }
    const uint64_t record = current_jnl.header.jnl_last_record_start;
    if (record >= total) {
        log_err("jnl_last_record_start %llu is past the ring of %llu blocks\n", ull(record),
                ull(total));
        return -1;
    }
    printf("TARN_INFO: jnl_last_record_start = %llu\n", ull(record));
    const uint64_t unread_before = keep_journal_failures().count;
    const int result = search_from(record, commit, total);
    // An older commit is not the answer where a newer one only could not be read.
    return result >= 0 && keep_journal_failures().count != unread_before ? cannot_read() : result;
}
