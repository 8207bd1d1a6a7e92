#include "jnl/jnl_walk.h"

#include "jnl/jnl_block.h"
#include "jnl/jnl_commit.h"
#include "jnl/jnl_file.h"
#include "print.h"
#include "store/log.h"

struct walk_state {
    const char* name;
    jnl_block_visitor visit;
    void* context;
    uint64_t total;    // blocks of the ring
    uint64_t visited;  // blocks so far
};

// Visits the blocks of one transaction, from its last to its first. 0, or -1.
static int visit_commit(walk_state* walk, const jnl_commit* commit) {
    for (uint64_t n = commit->last;; n = jnl_previous_block(n, walk->total)) {
        if (walk->visited == walk->total) {  // transactions that overlap
            log_err_as(walk->name, "more than %llu blocks to examine, block_num %llu\n",
                       ull(walk->total), ull(n));
            return -1;
        }
        jnl_block block;
        if (jnl_block_read(&block, n) < 0) {
            return -1;
        }
        if (walk->visit(walk->context, &block, n, walk->visited * JNL_BLOCK_RANKS) != 0) {
            return -1;
        }
        walk->visited++;
        if (n == commit->start) {
            return 0;
        }
    }
}

int jnl_walk_commits(const char* name, jnl_block_visitor visit, void* context) {
    const uint64_t total = current_jnl.header.jnl_total_count;
    uint32_t budget = journal_sync_count();
    jnl_commit commit = {};
    const int search = last_complete_commit(&commit, total);
    if (search < 0) {
        log_err_as(name, "Can't determine the last complete commit\n");
        return -1;
    }
    if (search == 0 || budget == 0) {
        return 0;
    }
    walk_state walk = {name, visit, context, total, 0};
    const uint64_t wrap_mark = commit.last;
    while (visit_commit(&walk, &commit) == 0) {
        const uint64_t before = jnl_previous_block(commit.start, total);
        const uint32_t trans_id = commit.start_block.ej_header.jnl_transid;
        if (prev_complete_commit(before, &commit, total, trans_id) != 0) {
            return 0;  // the history ends here
        }
        if (commit.last == wrap_mark || --budget == 0) {
            return 0;
        }
    }
    return -1;
}
