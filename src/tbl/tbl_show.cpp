#include "tbl/tbl_show.h"

#include <cstdio>

#include "print.h"
#include "store/log.h"
#include "tbl/tbl_entries.h"
#include "tbl/tbl_group_image.h"

void show_tbl_entry(const tbl_entry* entry) {
    if (entry == nullptr) {
        log_err("NULL pointer of tbl\n");
        return;
    }
    printf("TARN_INFO: used[%d] tail[%d] count/next %u\n", tbl_entry_is_used(entry) ? 1 : 0,
           tbl_entry_is_tail(entry) ? 1 : 0, tbl_entry_count(entry));
}

int show_tbl_lpa(uint64_t lpa) {
    tbl_entry entry{};
    if (tbl_entry_read(&entry, lpa) < 0) {
        return -1;  // logged there
    }
    show_tbl_entry(&entry);
    return 0;
}

// Numbers from the command line are not bounded: they must not wrap to an existing entry.
static bool lpa_exists(uint64_t group, uint64_t offset) {
    constexpr uint64_t GROUP_END = uint64_t{1} << (64 - TBL_GROUP_SHIFT);
    return group < GROUP_END && offset <= UINT64_MAX - (group << TBL_GROUP_SHIFT);
}

int show_tbl_group_offset(uint64_t group, uint64_t offset) {
    if (!lpa_exists(group, offset)) {
        log_err("no table holds group_num %llu offset %llu\n", ull(group), ull(offset));
        return -1;
    }
    return show_tbl_lpa(tbl_lpa_of(group, offset));
}

// What the entries of a group say about an offset; 0: free, and nothing links to it.
enum offset_mark : uint8_t { MARK_USED = 1, MARK_LINKED = 2 };

static int mark_offsets(const tbl_group_reader* entries, uint64_t group, uint8_t* marks) {
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        tbl_entry entry{};
        if (tbl_group_reader_get(entries, &entry, tbl_lpa_of(group, offset)) < 0) {
            return -1;  // logged there
        }
        if (tbl_entry_is_used(&entry)) {
            marks[offset] = MARK_USED;
        } else {
            marks[tbl_entry_count(&entry)] = MARK_LINKED;
        }
    }
    return 0;
}

static void list_heads(uint64_t group, const uint8_t* marks) {
    printf("TARN_INFO: List all multiple freelisthead in Group %llu\n", ull(group));
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        if (marks[offset] == 0) {
            printf("TARN_INFO: Group %llu offset %llu is freelisthead\n", ull(group), ull(offset));
        }
    }
}

static int list_from(const tbl_group_reader* entries, uint64_t group, uint32_t head,
                     bool show_entries, bool first_only) {
    printf("TARN_INFO: LIST in Group %llu\n", ull(group));
    uint64_t lpa = tbl_lpa_of(group, head);
    for (uint32_t i = 0; i < TBL_GROUP_ENTRIES; i++) {
        tbl_entry entry{};
        if (tbl_group_reader_get(entries, &entry, lpa) < 0) {
            return -1;  // logged there
        }
        printf("TARN_INFO: [%u] offset %u, LPA %llu\n", i, tbl_offset_in_group(lpa), ull(lpa));
        if (show_entries && show_tbl_lpa(lpa) != 0) {
            return -1;  // logged there
        }
        if (first_only || tbl_entry_is_tail(&entry)) {
            return 0;
        }
        lpa = tbl_lpa_of(group, tbl_entry_count(&entry));
    }
    printf("\033[31mTARN_RPT: error, more than %u element in FRI group %llu\n\033[0m",
           TBL_GROUP_ENTRIES, ull(group));
    return -1;
}

int list_tbl_group_freelist(uint64_t group, bool show_entries, bool first_only) {
    if (!lpa_exists(group, TBL_GROUP_ENTRIES - 1)) {
        log_err("no table holds group_num %llu\n", ull(group));
        return -1;
    }
    tbl_group_reader entries;
    tbl_group_reader_open(&entries, group);
    uint8_t marks[TBL_GROUP_ENTRIES] = {};
    if (mark_offsets(&entries, group, marks) != 0) {
        return -1;  // logged there
    }
    uint32_t heads = 0;
    uint32_t head = 0;
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        if (marks[offset] == 0) {
            heads++;
            head = offset;
        }
    }
    if (heads == 0) {
        printf("TARN_INFO: NO freelist in Group %llu\n", ull(group));
        return 0;
    }
    if (heads > 1) {
        list_heads(group, marks);
        return -1;
    }
    return list_from(&entries, group, head, show_entries, first_only);
}
