#include "fri/fri_journal.h"

#include <cstdio>

#include "fri/fri_entries.h"
#include "print.h"
#include "store/log.h"
#include "tbl/tbl_freelist.h"

int fri_mismatch_report = 0;

static bool same_entry(const fri_entry* a, const fri_entry* b) {
    return memcmp(a, b, sizeof *a) == 0;
}

int fri_entry_check(const fri_entry* entry, uint64_t group) {
    fri_entry on_disk{};
    if (fri_entry_read(&on_disk, group) < 0) {
        log_err("fri entry check fail, group_num %llu\n", ull(group));
        return -1;
    }
    printf("TARN_INFO: FRI JOURNAL : next %llu head %u free_count %u @group %llu\n",
           ull(fri_entry_next(entry)), fri_entry_head(entry), fri_entry_count(entry), ull(group));
    if (same_entry(&on_disk, entry)) {
        return 1;
    }
    if (fri_mismatch_report != 0) {
        printf(
            "TARN_INFO: FRI ENTRY MISSMATCH: org ef_next1 %u ef_next2_freelisthead %u "
            "ef_count_attr %u\n",
            on_disk.ef_next1, on_disk.ef_next2_freelisthead, on_disk.ef_count_attr);
        printf(
            "TARN_INFO: FRI ENTRY MISSMATCH: jnl ef_next1 %u ef_next2_freelisthead %u "
            "ef_count_attr %u\n",
            entry->ef_next1, entry->ef_next2_freelisthead, entry->ef_count_attr);
    }
    return 0;
}

int fri_entry_replay(const fri_entry* entry, uint64_t group) {
    if (fri_entry_write(entry, group) != 0) {
        log_err("fri entry replay fail, group_num %llu\n", ull(group));
        return -1;
    }
    return 0;
}

int fri_entry_replay_link(const fri_entry* entry, const fri_entry* other, uint64_t group) {
    if (!fri_entry_is_init(entry) || fri_entry_is_init(other)) {
        return 0;
    }
    uint16_t head = 0;  // the record's own image carries the head
    return link_free_tbl_entry_in_group(group, &head);
}

int fri_var0_check(uint64_t free_count, uint64_t group_head) {
    const fri_header& header = current_fri.header;
    if (header.fri_free_count == free_count && header.fri_group_head == group_head) {
        return 1;
    }
    if (fri_mismatch_report != 0) {
        printf("TARN_INFO: FRI VAR0 MISSMATCH: org fri_free_count %llu group_head %llu\n",
               ull(header.fri_free_count), ull(header.fri_group_head));
        printf("TARN_INFO: FRI VAR0 MISSMATCH: jnl fri_free_count %llu group_head %llu\n",
               ull(free_count), ull(group_head));
    }
    return 0;
}

int fri_var0_replay(uint64_t free_count, uint64_t group_head) {
    current_fri.header.fri_free_count = free_count;
    current_fri.header.fri_group_head = group_head;
    return save_fri();
}
