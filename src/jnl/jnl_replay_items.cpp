#include "jnl/jnl_replay_items.h"

#include "fri/fri_journal.h"
#include "map/map_entries.h"
#include "print.h"
#include "store/keep_journal.h"
#include "tbl/tbl_entries.h"

bool replay_is_seen(const jnl_replay_block* at, uint64_t key, uint64_t rank) {
    return jnl_seen_keys_test_and_add(at->walk->seen, key, rank) != 0;
}

int replay_map_image(const jnl_replay_block* at, uint64_t lea, map_entry image) {
    if (map_entry_replay(&image, lea) != 0) {
        log_err_as(at->name, "Fail to replay MAP, lea %llu\n", ull(lea));
        return -1;
    }
    return 0;
}

int replay_tbl_item(const jnl_replay_block* at, uint64_t lpa, tbl_entry image, uint64_t rank) {
    if (replay_is_seen(at, lpa, rank)) {
        return 0;
    }
    if (at->block->type == JNL_BLOCK_UNMAP && tbl_entry_count(&image) == 0) {
        log_err_as(at->name, "TBL refer-cnt is zero, lpa %llu\n", ull(lpa));
        return -1;
    }
    if (tbl_entry_replay(&image, lpa) != 0) {
        log_err_as(at->name, "Fail to replay TBL, lpa %llu\n", ull(lpa));
        return -1;
    }
    return 0;
}

int replay_fri_item(const jnl_replay_block* at, uint64_t group, fri_entry old_image,
                    fri_entry new_image, uint64_t rank) {
    if (fri_entry_replay_link(&new_image, &old_image, group) < 0) {
        // Logged there. The replay continues, without the group's free list.
        keep_journal(keep_reason::failed_write, "free list of group_num %llu not linked",
                     ull(group));
    }
    if (replay_is_seen(at, group, rank)) {
        return 0;
    }
    if (fri_entry_replay(&new_image, group) != 0) {
        log_err_as(at->name, "Fail to replay FRI, group_num %llu\n", ull(group));
        return -1;
    }
    return 0;
}

int replay_mapped_count(const jnl_replay_block* at, uint64_t mapped_count) {
    if (at->walk->mapped_count_set) {
        return 0;
    }
    if (map_count_replay(mapped_count) != 0) {
        log_err_as(at->name, "MAP mapped_count is not match\n");
        return -1;
    }
    at->walk->mapped_count_set = true;
    return 0;
}

int replay_fri_var(const jnl_replay_block* at, uint64_t free_count, uint64_t group_head) {
    if (at->walk->fri_var_set) {
        return 0;
    }
    if (fri_var0_replay(free_count, group_head) != 0) {
        log_err_as(at->name,
                   "Fail to replay FRI var part, total_free_count_new %llu index_head_new %llu\n",
                   ull(free_count), ull(group_head));
        return -1;
    }
    at->walk->fri_var_set = true;
    return 0;
}
