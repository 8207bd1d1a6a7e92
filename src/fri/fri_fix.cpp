#include "fri/fri_fix.h"

#include <cstdio>

#include "fri/fri_entries.h"
#include "print.h"
#include "store/log.h"
#include "tbl/tbl_format.h"
#include "tbl/tbl_freelist.h"

// The result of the groups so far.
struct fix_result {
    int64_t delta;   // to the index's free count
    bool any;        // a group was relinked
    uint64_t first;  // the lowest of them
    uint16_t head;   // of the last relinked list; kept for a group without free extents
};

static int relink_group(fri_entry* entry, uint64_t group, fix_result* fixed) {
    const int free_count = link_free_tbl_entry_in_group(group, &fixed->head);
    if (free_count < 0) {
        return -1;  // logged there
    }
    if (free_count > static_cast<int>(TBL_GROUP_ENTRIES)) {
        log_err_as("fix_fri_group_head",
                   "Stop fix FRI and TBL, @group_num %llu free_count %d exceed the maximum %u\n",
                   ull(group), free_count, TBL_GROUP_ENTRIES);
        return -1;
    }
    const int before = fri_entry_count(entry);
    fri_entry_set_head(entry, fixed->head);
    fri_entry_set_count(entry, static_cast<uint32_t>(free_count));
    if (!fixed->any) {
        fixed->any = true;
        fixed->first = group;
    }
    if (fri_entry_write(entry, group) != 0) {
        log_err_as("fix_fri_group_head",
                   "Stop fix FRI and TBL Link List @group_num %llu, free_head %llu free_count %u\n",
                   ull(group), ull(fixed->head), static_cast<unsigned>(free_count));
        return -1;
    }
    fixed->delta += free_count - before;
    return 0;
}

static int save_fixed(const fix_result* fixed) {
    fri_header& header = current_fri.header;
    printf("TARN_INFO: Fix FRI from fri_free_count %llu\n", ull(header.fri_free_count));
    header.fri_free_count += static_cast<uint64_t>(fixed->delta);
    printf("TARN_INFO: Fix FRI to fri_free_count %llu\n", ull(header.fri_free_count));
    printf("TARN_INFO: Fix FRI from fri_group_head %llu\n", ull(header.fri_group_head));
    header.fri_group_head = fixed->first;
    printf("TARN_INFO: Fix FRI to fri_group_head %llu\n", ull(header.fri_group_head));
    if (save_fri() != 0) {
        log_err_as("fix_fri_group_head", "Fail to save_fri\n");
        return -1;
    }
    return 0;
}

int fix_fri_group_head() {
    if (current_fri.fd == 0) {
        log_err("fri file descriptor is invalid\n");
        return -1;
    }
    fix_result fixed{};
    for (uint64_t group = 0; group < FRI_GROUP_CAPACITY; group++) {
        fri_entry entry{};
        if (fri_entry_read(&entry, group) < 0) {
            return -1;  // logged there
        }
        if (!fri_entry_is_init(&entry)) {
            break;
        }
        const bool sound =
            tbl_check_group_free_count(group, fri_entry_head(&entry), fri_entry_count(&entry)) == 0;
        if (sound && relink_group(&entry, group, &fixed) != 0) {
            return -1;  // logged there
        }
    }
    return save_fixed(&fixed);
}
