#include "tbl/tbl_ref_compare.h"

#include <algorithm>

#include "store/descriptor.h"

static bool all_free(const tbl_group_image* image) {
    unsigned any = 0;
    for (const uint16_t word : image->words) {
        any |= word;
    }
    return (any & TBL_USED_BIT) == 0;
}

static bool narrow_agrees(const tbl_group_image* image, const uint8_t* counters) {
    unsigned differences = 0;
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        differences |= tbl_word_meaning(image->words[offset]) ^ ref_counter_word(counters[offset]);
    }
    return differences == 0;
}

static bool wide_agrees(const tbl_group_image* image, const uint16_t* words) {
    unsigned differences = 0;
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        differences |= tbl_word_meaning(image->words[offset]) ^ tbl_word_meaning(words[offset]);
    }
    return differences == 0;
}

static bool group_agrees(tbl_group_image* image, int fd, const ref_group* group) {
    if (!tbl_group_load(fd, image, group->group)) {
        return false;
    }
    return group->narrow != nullptr ? narrow_agrees(image, group->narrow)
                                    : wide_agrees(image, group->wide);
}

// Whether the table has the groups `from` to `to` - 1 free, in which nothing was counted.
static bool free_between(tbl_group_image* image, int fd, uint64_t from, uint64_t to) {
    while (from < to) {
        const uint64_t first = data_node_offset(tbl_block_of(tbl_lpa_of(from, 0)));
        const uint64_t data = io_next_data(fd, first, TBL_FILE_SIZE);
        if (data >= TBL_FILE_SIZE) {
            return true;
        }
        const uint64_t block = data / DATA_NODE_SIZE - DATA_NODE_BASE;
        from = std::max(from, tbl_group_of(block * TBL_BLOCK_ENTRIES));
        if (from < to && (!tbl_group_load(fd, image, from) || !all_free(image))) {
            return false;
        }
        from++;
    }
    return true;
}

bool tbl_ref_counts_agree(tbl_ref_counts* counts, int fd, uint64_t group_count) {
    if (counts->in_table) {
        return false;
    }
    tbl_ref_counts_sort(counts);
    const ref_group* end = counts->groups + counts->group_count;
    uint64_t next = 0;
    for (const ref_group* group = counts->groups; group != end && next < group_count; group++) {
        if (!free_between(&counts->image, fd, next, std::min(group->group, group_count)) ||
            (group->group < group_count && !group_agrees(&counts->image, fd, group))) {
            return false;
        }
        next = group->group + 1;
    }
    return free_between(&counts->image, fd, next, group_count);
}
