// The groups of a window, as the counts of their extents. Declared in tbl_ref_counts.h.
#include <algorithm>

#include "tbl/tbl_ref_window.h"

// The bytes of a group's counters, in a dense region or a wide one.
static const uint8_t* dense_group(region_head* head, uint64_t group) {
    return counters_of(head) + group % REF_REGION_GROUPS * (TBL_GROUP_ENTRIES / 2);
}

static const uint16_t* wide_group(region_head* head, uint64_t group) {
    return wide_of(head) + group % REF_REGION_GROUPS * TBL_GROUP_ENTRIES;
}

static bool is_any_byte(const uint8_t* bytes, size_t size) {
    uint64_t any = 0;
    for (size_t i = 0; i < size; i += sizeof any) {
        any |= load_word(bytes + i);
    }
    return any != 0;
}

// The first of the region's sorted offsets that is `offset` or more.
static const uint32_t* first_offset(region_head* head, uint32_t offset) {
    return std::lower_bound(offsets_of(head), offsets_of(head) + head->used, offset);
}

static bool has_reference(region_head* head, uint64_t group) {
    switch (head->kind) {
        case REGION_DENSE:
            return is_any_byte(dense_group(head, group), TBL_GROUP_ENTRIES / 2);
        case REGION_WIDE:
            return is_any_byte(reinterpret_cast<const uint8_t*>(wide_group(head, group)),
                               TBL_GROUP_ENTRIES * sizeof(uint16_t));
        case REGION_SPARSE: {
            const uint32_t begin = group % REF_REGION_GROUPS * TBL_GROUP_ENTRIES;
            const uint32_t* at = first_offset(head, begin);
            return at != offsets_of(head) + head->used && *at < begin + TBL_GROUP_ENTRIES;
        }
        default:
            return false;
    }
}

bool ref_counts_next_group(const ref_counts* counts, uint64_t* group) {
    const uint64_t end = uint64_t{counts->end} * REF_REGION_GROUPS;
    while (*group < end) {
        region_head* head = head_of(counts, static_cast<uint32_t>(*group / REF_REGION_GROUPS));
        if (head == nullptr) {
            *group = (*group / REF_REGION_GROUPS + 1) * REF_REGION_GROUPS;
        } else if (has_reference(head, *group)) {
            return true;
        } else {
            ++*group;
        }
    }
    return false;
}

uint64_t ref_counts_group_end(const ref_counts* counts) {
    for (uint64_t group = uint64_t{counts->end} * REF_REGION_GROUPS; group > 0; group--) {
        region_head* head = head_of(counts, static_cast<uint32_t>((group - 1) / REF_REGION_GROUPS));
        if (head == nullptr) {
            group -= (group - 1) % REF_REGION_GROUPS;  // to the region's first group
        } else if (has_reference(head, group - 1)) {
            return group;
        }
    }
    return 0;
}

uint64_t ref_counts_group_limit(const ref_counts* counts) {
    const bool has_last = counts->end != 0 && ref_counts_has_region(counts, counts->end - 1);
    return has_last ? ref_counts_group_end(counts) : uint64_t{counts->end} * REF_REGION_GROUPS;
}

static void get_dense(const ref_counts* counts, region_head* head, uint64_t group, uint16_t* out) {
    const uint8_t* bytes = dense_group(head, group);
    unsigned full = 0;
    for (uint32_t i = 0; i < TBL_GROUP_ENTRIES / 2; i++) {
        const unsigned low = bytes[i] & NIBBLE_MAX;
        const unsigned high = bytes[i] >> 4;
        out[2 * i] = static_cast<uint16_t>(low);
        out[2 * i + 1] = static_cast<uint16_t>(high);
        full |= (low + 1) | (high + 1);
    }
    if (full <= NIBBLE_MAX) {
        return;  // no counter is full
    }
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        if (out[offset] == NIBBLE_MAX) {
            const uint64_t apart = *apart_slot(counts, tbl_lpa_of(group, offset));
            out[offset] = static_cast<uint16_t>(NIBBLE_MAX + (apart >> APART_SHIFT));
        }
    }
}

void ref_counts_get_group(const ref_counts* counts, uint64_t group, uint16_t* out) {
    region_head* head = head_of(counts, static_cast<uint32_t>(group / REF_REGION_GROUPS));
    if (head->kind == REGION_DENSE) {
        get_dense(counts, head, group, out);
        return;
    }
    if (head->kind == REGION_WIDE) {
        memcpy(out, wide_group(head, group), TBL_GROUP_ENTRIES * sizeof *out);
        return;
    }
    memset(out, 0, TBL_GROUP_ENTRIES * sizeof *out);
    const uint32_t begin = group % REF_REGION_GROUPS * TBL_GROUP_ENTRIES;
    const uint32_t* end = offsets_of(head) + head->used;
    for (const uint32_t* at = first_offset(head, begin);
         at != end && *at < begin + TBL_GROUP_ENTRIES; at++) {
        out[*at - begin]++;
    }
}
