#include "fri/fri_journal.h"

#include <cstdio>

#include "fri/fri_entries.h"
#include "print.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "tbl/tbl_format.h"
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

static void note_damaged_block(uint64_t block, const node_mismatch* before) {
    char name[IO_NAME_SIZE];
    const uint64_t first = block * FRI_BLOCK_ENTRIES;
    log_keep_as(
        "fri_entry_replay", keep_reason::damage,
        "%s: block %llu, lpa %llu to %llu, is damaged and gets a fresh checksum: on-disk(%08x) "
        "!= (%08x)\n",
        io_name(current_fri.fd, name, sizeof name), ull(block), ull(tbl_lpa_of(first, 0)),
        ull(tbl_lpa_of(first + FRI_BLOCK_ENTRIES, 0) - 1), before->stored, before->computed);
}

int fri_entry_replay(const fri_entry* entry, uint64_t group) {
    node_mismatch before = {};
    if (fri_entry_write_over(entry, group, &before) != 0) {
        log_err("fri entry replay fail, group_num %llu\n", ull(group));
        return -1;
    }
    if (before.found) {
        note_damaged_block(fri_block_of(group), &before);
    }
    return 0;
}

int fri_entry_replay_link(const fri_entry* entry, const fri_entry* other, uint64_t group) {
    if (!fri_entry_is_init(entry) || fri_entry_is_init(other)) {
        return 0;
    }
    tbl_note_damage_before_link(group);
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
