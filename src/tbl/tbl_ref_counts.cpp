#include "tbl/tbl_ref_counts.h"

#include <algorithm>
#include <new>

#include "store/keep_journal.h"
#include "store/zero_memory.h"
#include "tbl/tbl_entries.h"
#include "tbl/tbl_file.h"

constexpr size_t NEAR_SIZE = REF_NEAR_EXTENTS;
constexpr size_t UNITS_SIZE = size_t{REF_UNITS} * REF_UNIT_SIZE;
constexpr uint32_t NO_GROUP = ~uint32_t{0};
constexpr uint32_t HASH_SHIFT = 64 - 15;
static_assert(REF_SLOTS == 1u << 15 && REF_GROUPS < REF_SLOTS);

static void forget(tbl_ref_counts* counts) {
    for (uint32_t i = 0; i < counts->group_count; i++) {
        if (counts->groups[i].group < REF_NEAR_GROUPS) {
            memset(counts->near + counts->groups[i].group * TBL_GROUP_ENTRIES, REF_COUNTER_NONE,
                   TBL_GROUP_ENTRIES);
        }
    }
    std::fill_n(counts->slots, REF_SLOTS, NO_GROUP);
    counts->units_used = 0;
    counts->group_count = 0;
}

void tbl_ref_counts_drop(tbl_ref_counts* counts) {
    if (counts == nullptr) {
        return;
    }
    zero_memory_free(counts->near, NEAR_SIZE);
    zero_memory_free(counts->units, UNITS_SIZE);
    delete counts;
}

tbl_ref_counts* tbl_ref_counts_open(ref_group_hook first_touch) {
    auto* counts = new (std::nothrow) tbl_ref_counts;
    if (counts == nullptr) {
        return nullptr;
    }
    counts->near = static_cast<uint8_t*>(zero_memory(NEAR_SIZE));
    counts->units = static_cast<uint8_t*>(zero_memory(UNITS_SIZE));
    if (counts->near == nullptr || counts->units == nullptr) {
        tbl_ref_counts_drop(counts);
        return nullptr;
    }
    counts->first_touch = first_touch;
    counts->group_count = 0;
    counts->in_table = false;
    counts->lost = false;
    counts->lost_lea = 0;
    forget(counts);
    return counts;
}

static uint32_t* slot_of(tbl_ref_counts* counts, uint64_t group) {
    uint64_t slot = (group * 0x9E3779B97F4A7C15) >> HASH_SHIFT;
    while (counts->slots[slot] != NO_GROUP && counts->groups[counts->slots[slot]].group != group) {
        slot = (slot + 1) % REF_SLOTS;
    }
    return &counts->slots[slot];
}

static bool make_room(tbl_ref_counts* counts);

static uint8_t* take_units(tbl_ref_counts* counts, uint32_t wanted) {
    uint8_t* taken = counts->units + size_t{counts->units_used} * REF_UNIT_SIZE;
    counts->units_used += wanted;
    return taken;
}

static bool units_left(const tbl_ref_counts* counts, uint32_t wanted) {
    return counts->units_used + wanted <= REF_UNITS;
}

// The group in `counts->image` has nothing in it: counters, from zero on.
static void fill_narrow(tbl_ref_counts* counts, ref_group* group) {
    group->narrow = group->group < REF_NEAR_GROUPS ? counts->near + group->group * TBL_GROUP_ENTRIES
                                                   : take_units(counts, 1);
    memset(group->narrow, REF_COUNTER_ZERO, TBL_GROUP_ENTRIES);
}

// The near counters of a wide group become REF_COUNTER_WIDE.
static void fill_wide(tbl_ref_counts* counts, ref_group* group) {
    group->wide = reinterpret_cast<uint16_t*>(take_units(counts, 2));
    if (group->group < REF_NEAR_GROUPS) {
        memset(counts->near + group->group * TBL_GROUP_ENTRIES, REF_COUNTER_WIDE,
               TBL_GROUP_ENTRIES);
    }
}

// Takes the group from the table into memory and stores where it is through `found`.
static ref_result take_group(tbl_ref_counts* counts, uint64_t number, uint64_t lea,
                             ref_group** found) {
    if (counts->first_touch(number) < 0) {
        return ref_result::touch_failed;
    }
    if (!units_left(counts, 2) && !make_room(counts)) {
        return ref_result::lost;
    }
    if (!tbl_group_load(current_tbl.fd, &counts->image, number)) {
        counts->in_table = true;  // the caller counts there
        return ref_result::no_entry;
    }
    *slot_of(counts, number) = counts->group_count;
    *found = &counts->groups[counts->group_count++];
    **found = {number, nullptr, nullptr, 0, lea};
    if (tbl_group_all_zero(&counts->image)) {
        fill_narrow(counts, *found);
    } else {
        fill_wide(counts, *found);
        memcpy((*found)->wide, counts->image.words, sizeof counts->image.words);
    }
    return ref_result::counted;
}

static ref_result find_group(tbl_ref_counts* counts, uint64_t number, uint64_t lea,
                             ref_group** found) {
    const uint32_t place = *slot_of(counts, number);
    if (place == NO_GROUP) {
        return take_group(counts, number, lea, found);
    }
    *found = &counts->groups[place];
    return ref_result::counted;
}

// Blocks of a narrow group in which something was counted.
static uint32_t counted_blocks(const ref_group* group) {
    uint32_t blocks = 0;
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        if (group->narrow[offset] != REF_COUNTER_ZERO) {
            blocks |= tbl_group_block_bit(group->group, offset);
        }
    }
    return blocks;
}

// A byte no longer holds the count. Needs two units.
static void widen(tbl_ref_counts* counts, ref_group* group) {
    uint16_t words[TBL_GROUP_ENTRIES];
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        words[offset] = ref_counter_word(group->narrow[offset]);
    }
    group->changed = counted_blocks(group);
    group->narrow = nullptr;
    fill_wide(counts, group);
    memcpy(group->wide, words, sizeof words);
}

static ref_result add_wide(ref_group* group, uint64_t lpa, uint64_t* first_uses) {
    const uint32_t offset = tbl_offset_in_group(lpa);
    tbl_entry entry = {group->wide[offset]};
    const uint32_t count = tbl_entry_count(&entry) + 1u;
    if (count > TBL_COUNT_MAX) {
        return ref_result::full;
    }
    if (count == 1) {
        tbl_entry_set_used(&entry);
        ++*first_uses;
    }
    tbl_entry_set_count(&entry, count);
    group->wide[offset] = entry.word;
    group->changed |= tbl_group_block_bit(group->group, offset);
    return ref_result::counted;
}

ref_result tbl_ref_counts_add(tbl_ref_counts* counts, uint64_t lpa, uint64_t lea,
                              uint64_t* first_uses) {
    if (counts->lost) {
        return ref_result::lost;
    }
    ref_group* group = nullptr;
    const ref_result found = find_group(counts, tbl_group_of(lpa), lea, &group);
    if (found != ref_result::counted) {
        return found;
    }
    if (group->narrow == nullptr) {
        return add_wide(group, lpa, first_uses);
    }
    if (ref_counter_add(&group->narrow[tbl_offset_in_group(lpa)], first_uses)) {
        return ref_result::counted;
    }
    if (!units_left(counts, 2)) {
        return make_room(counts)  // the group is wide afterwards: the table has its counts
                   ? tbl_ref_counts_add(counts, lpa, lea, first_uses)
                   : ref_result::lost;
    }
    widen(counts, group);
    return add_wide(group, lpa, first_uses);
}

// Entry by entry, for a group whose blocks cannot be moved in bulk. Returns false at the first
// entry that could not be written, logged there.
static bool write_entries(const tbl_group_image* image, uint64_t group) {
    const uint64_t failed_before = keep_journal_failures().count;
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        const uint64_t lpa = tbl_lpa_of(group, offset);
        const tbl_entry wanted = tbl_group_get(image, offset);
        tbl_entry present{};
        if (tbl_entry_read(&present, lpa) >= 0 && present.word == wanted.word) {
            continue;
        }
        (void)tbl_entry_write(&wanted, lpa);  // always 0
        if (keep_journal_failures().count != failed_before) {
            return false;
        }
    }
    return true;
}

static bool write_group(tbl_ref_counts* counts, const ref_group* group) {
    tbl_group_image* image = &counts->image;
    const bool loaded = tbl_group_load(current_tbl.fd, image, group->group);
    if (group->narrow != nullptr) {
        for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
            image->words[offset] = ref_counter_word(group->narrow[offset]);
        }
        tbl_group_mark_nonzero(image);
    } else {
        memcpy(image->words, group->wide, sizeof image->words);
        image->changed = group->changed;
    }
    return (loaded && tbl_group_store(current_tbl.fd, image)) || write_entries(image, group->group);
}

void tbl_ref_counts_sort(tbl_ref_counts* counts) {
    std::sort(counts->groups, counts->groups + counts->group_count,
              [](const ref_group& a, const ref_group& b) { return a.group < b.group; });
}

bool tbl_ref_counts_lost(const tbl_ref_counts* counts, uint64_t* lea) {
    if (counts->lost) {
        *lea = counts->lost_lea;
    }
    return counts->lost;
}

bool tbl_ref_counts_write(tbl_ref_counts* counts) {
    if (counts == nullptr) {
        return true;
    }
    tbl_ref_counts_sort(counts);
    for (uint32_t i = 0; i < counts->group_count && !counts->lost; i++) {
        if (!write_group(counts, &counts->groups[i])) {
            counts->lost = true;
            counts->lost_lea = counts->groups[i].lea;
        }
    }
    return !counts->lost;
}

// Writes everything in memory to the table. Results as tbl_ref_counts_write.
static bool make_room(tbl_ref_counts* counts) {
    if (!tbl_ref_counts_write(counts)) {
        return false;
    }
    counts->in_table = true;
    forget(counts);
    return true;
}
