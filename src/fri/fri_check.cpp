#include "fri/fri_check.h"

#include <cstdio>

#include "fri/fri_entries.h"
#include "print.h"
#include "store/log.h"
#include "tbl/tbl_freelist.h"

static int fri_check_free_group_entry(const fri_entry* entry, uint64_t group) {
    return tbl_check_group_free_count(group, fri_entry_head(entry), fri_entry_count(entry));
}

int fri_check_group_head() {
    const uint64_t group = current_fri.header.fri_group_head;
    fri_entry entry{};
    if (fri_entry_read(&entry, group) < 0) {
        log_err("fail to read fri , group_num %llu\n", ull(group));
        return -1;
    }
    printf("TARN_INFO: FRI group_head %llu free_count %u\n", ull(group), fri_entry_count(&entry));
    if (!fri_entry_is_init(&entry)) {
        return 0;
    }
    return fri_check_free_group_entry(&entry, group) == 0 ? 0 : -1;
}

// Detects a loop in a walk along links, in constant memory: each group is compared with one that
// was remembered, and after 1, 2, 4, ... steps the current group is remembered instead. A loop is
// found within three times as many steps as the list has groups.
struct loop_watch {
    uint64_t remembered;
    uint64_t since;  // steps since `remembered`
    uint64_t limit;  // steps until it is replaced
};

static bool is_loop(loop_watch* watch, uint64_t group) {
    if (group == watch->remembered) {
        return true;
    }
    if (++watch->since == watch->limit) {
        *watch = {group, 0, watch->limit * 2};
    }
    return false;
}

int fri_check_free_group_list() {
    constexpr uint64_t STEPS_END = FRI_GROUP_CAPACITY + 1;
    puts("TARN_INFO: FRI check free group list:");
    uint64_t group = current_fri.header.fri_group_head;
    loop_watch watch = {group, 0, 1};
    for (uint64_t steps = 1;; steps++) {
        fri_entry entry{};
        if (fri_entry_read(&entry, group) < 0) {
            log_err("fail to read fri , group_num %llu\n", ull(current_fri.header.fri_group_head));
            return -1;
        }
        if (!fri_entry_is_init(&entry)) {
            printf("TARN_INFO: FRI last group_num %llu\n", ull(group));
            return 0;
        }
        if (fri_check_free_group_entry(&entry, group) != 0) {
            return -1;  // logged there
        }
        if (group == FRI_GROUP_CAPACITY) {
            return 0;
        }
        group = fri_entry_next(&entry);
        if (steps == STEPS_END || is_loop(&watch, group)) {
            log_err("error, group-list loops\n");
            return -1;
        }
    }
}
