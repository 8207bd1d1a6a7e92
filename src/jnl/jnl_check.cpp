#include "jnl/jnl_check.h"

#include "fri/fri_journal.h"
#include "jnl/jnl_kinds.h"
#include "jnl/jnl_seen_keys.h"
#include "jnl/jnl_walk.h"
#include "map/map_entries.h"
#include "map/map_file.h"
#include "print.h"
#include "store/log.h"
#include "tbl/tbl_entries.h"

static constexpr const char* NAME = "jnl_file_type_check";  // its steps log under its name

struct jnl_check_walk {
    int32_t type;
    jnl_seen_keys seen;
    bool mapped_count_compared;  // with the newest entry of the map
    bool fri_var_compared;       // likewise, of the index
};

// The comparisons of one entry: 1 it matches or is not examined, 0 it differs, negative: failure.

static int check_tbl_entry(jnl_check_walk* walk, const jnl_file_entry* entry, uint64_t rank) {
    const tbl_entry image = entry->tbl.new_entry;
    const uint64_t lpa = entry->tbl.lpa;
    return jnl_seen_keys_test_and_add(&walk->seen, lpa, rank) != 0 ? 1
                                                                   : tbl_entry_check(&image, lpa);
}

static int check_fri_entry(jnl_check_walk* walk, const jnl_file_entry* entry, uint64_t rank) {
    const fri_entry image = entry->fri.new_entry;
    const uint64_t group = entry->fri.group_num;
    return jnl_seen_keys_test_and_add(&walk->seen, group, rank) != 0
               ? 1
               : fri_entry_check(&image, group);
}

static int check_fri_var0(jnl_check_walk* walk, const jnl_file_entry* entry) {
    if (walk->fri_var_compared) {
        return 1;
    }
    walk->fri_var_compared = true;
    return fri_var0_check(entry->fri_var0.new_free_count, entry->fri_var0.new_index_head);
}

static int check_map_entry(jnl_check_walk* walk, const jnl_file_entry* entry, uint64_t rank) {
    const uint64_t mapped_count = entry->map.new_mapped_count;
    if (!walk->mapped_count_compared && map_count_check(mapped_count) == 0) {
        log_err_as(NAME, "MAP mapped_count is not match new %llu current %llu\n", ull(mapped_count),
                   ull(current_map.header.map_mapped_count));
        return 0;
    }
    walk->mapped_count_compared = true;
    const map_entry image = entry->map.new_entry;
    const uint64_t lea = entry->map.lea;
    return jnl_seen_keys_test_and_add(&walk->seen, lea, rank) != 0 ? 1
                                                                   : map_entry_check(&image, lea);
}

static int compare_entry(jnl_check_walk* walk, const jnl_file_entry* entry, uint64_t rank) {
    switch (entry->type) {
        case FILE_TYPE_TBL:
            return check_tbl_entry(walk, entry, rank);
        case FILE_TYPE_FRI:
            return check_fri_entry(walk, entry, rank);
        case FILE_TYPE_FRI_VAR0:
            return check_fri_var0(walk, entry);
        case FILE_TYPE_MAP:
            return check_map_entry(walk, entry, rank);
        default:
            return -1;  // not reached: no other type has a file
    }
}

// 0 the entry matches or is not examined, -1, logged.
static int check_entry(jnl_check_walk* walk, const jnl_file_entry* entry, uint64_t rank) {
    const int result = compare_entry(walk, entry, rank);
    if (result < 0) {
        log_err_as(NAME, "fail check %d type file\n", walk->type);
        return -1;
    }
    if (result == 0) {
        log_err_as(NAME, "check %d type file not match\n", walk->type);
        return -1;
    }
    return 0;
}

int jnl_check_entries(jnl_check_walk* walk, const jnl_block* block, uint64_t block_num,
                      uint64_t rank) {
    const int entry_count = jnl_entry_count(NAME, block);
    if (entry_count < 0) {
        return -1;
    }
    const int failed = jnl_visit_entries(NAME, walk->type, block, entry_count, rank,
                                         [walk](const jnl_file_entry* entry, uint64_t its_rank) {
                                             return check_entry(walk, entry, its_rank);
                                         });
    if (failed >= 0) {
        log_err_as(NAME, "check %d type file not match, block_num %llu entry %d\n", walk->type,
                   ull(block_num), failed);
        return -1;
    }
    return 0;
}

static int check_block(void* context, const jnl_block* block, uint64_t block_num, uint64_t rank) {
    auto* walk = static_cast<jnl_check_walk*>(context);
    return jnl_kind_of(block->type)->check(walk, block, block_num, rank);
}

int jnl_file_type_check(int32_t type) {
    jnl_check_walk walk = {type, {}, false, false};
    const uint32_t budget = journal_sync_count();
    const int result = jnl_walk_commits(&current_jnl, budget, NAME, check_block, &walk);
    const bool all_examined = !walk.seen.full;
    jnl_seen_keys_free(&walk.seen);
    return all_examined ? result : -1;
}
