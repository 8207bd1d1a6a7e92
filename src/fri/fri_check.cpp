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

// Tells a walk along links that came back to a group, in fixed memory: the walk is compared with a
// group that it passed, and that group moves on to the walk's place after 1, 2, 4, ... steps. A
// loop is told before three times as many steps are made as the list has groups.
struct loop_watch {
    uint64_t passed;
    uint64_t since;  // steps since `passed`
    uint64_t lease;  // steps until it moves on
};

static bool came_back(loop_watch* watch, uint64_t group) {
    if (group == watch->passed) {
        return true;
    }
    if (++watch->since == watch->lease) {
        *watch = {group, 0, watch->lease * 2};
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
        if (steps == STEPS_END || came_back(&watch, group)) {
            log_err("error, group-list loops\n");
            return -1;
        }
    }
}
