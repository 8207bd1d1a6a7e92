#include "jnl/jnl_walk.h"

#include "fri/fri_file.h"
#include "jnl/jnl_block.h"
#include "jnl/jnl_commit.h"
#include "map/map_file.h"
#include "print.h"
#include "store/log.h"
#include "tbl/tbl_file.h"

struct walk_state {
    const jnl_file* jnl;
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
        if (jnl_block_read(walk->jnl, &block, n) < 0) {
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

int jnl_walk_commits(const jnl_file* jnl, uint32_t budget, const char* name,
                     jnl_block_visitor visit, void* context) {
    const uint64_t total = jnl->header.jnl_total_count;
    jnl_commit commit = {};
    const int search = last_complete_commit(jnl, &commit, total);
    if (search < 0) {
        log_err_as(name, "Can't determine the last complete commit\n");
        return -1;
    }
    if (search == 0 || budget == 0) {
        return 0;
    }
    walk_state walk = {jnl, name, visit, context, total, 0};
    const uint64_t wrap_mark = commit.last;
    while (visit_commit(&walk, &commit) == 0) {
        const uint64_t before = jnl_previous_block(commit.start, total);
        const uint32_t trans_id = commit.start_block.ej_header.jnl_transid;
        if (prev_complete_commit(jnl, before, &commit, total, trans_id) != 0) {
            return 0;  // the history ends here
        }
        if (commit.last == wrap_mark || --budget == 0) {
            return 0;
        }
    }
    return -1;
}

const uint8_t* jnl_target_uuid(int32_t type) {
    switch (type) {
        case FILE_TYPE_TBL:
            return current_tbl.header.tbl_uuid;
        case FILE_TYPE_FRI:
        case FILE_TYPE_FRI_VAR0:
            return current_fri.header.fri_uuid;
        case FILE_TYPE_MAP:
            return current_map.header.map_uuid;
        default:
            return nullptr;
    }
}

int jnl_entry_count(const char* name, const jnl_block* block) {
    const int entry_count = block->ej_header.jnl_entry_count;
    if (entry_count > int{JNL_FILE_ENTRY_MAX}) {
        log_err_as(name, "entry count %d large than %d\n", entry_count, int{JNL_FILE_ENTRY_MAX});
        return -1;
    }
    return entry_count;
}

static bool concerns(int32_t wanted, uint32_t type) {
    return static_cast<int32_t>(type) == wanted ||
           (type == FILE_TYPE_FRI_VAR0 && wanted == FILE_TYPE_FRI);
}

int jnl_visit_entries(const char* name, int32_t type, const jnl_block* block, int entry_count,
                      uint64_t rank, const jnl_entry_visitor& visit) {
    const uint8_t* uuid = jnl_target_uuid(type);
    for (int i = entry_count - 1; i >= 0; i--, rank++) {  // the newest is the last
        if (uuid == nullptr) {
            log_err_as(name, "Not support %d type file jnl check\n", type);
            return i;
        }
        const jnl_file_entry* entry = &block->entry[i];
        if (uuid_equal(entry->uuid, uuid) && concerns(type, entry->type) &&
            visit(entry, rank) != 0) {
            return i;
        }
    }
    return -1;
}
