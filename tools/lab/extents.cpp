#include "lab/extents.h"

#include <algorithm>

#include "lab/metadata.h"

namespace lab {

static tbl_entry entry_at(const volume& vol, uint64_t lpa) {
    return {vol.tbl[lpa]};
}

uint32_t references(const volume& vol, uint64_t lpa) {
    const tbl_entry entry = entry_at(vol, lpa);
    return tbl_entry_count(&entry);
}

bool initialised(const volume& vol, uint64_t group) {
    return group < vol.fri.size() && fri_entry_is_init(&vol.fri[group]);
}

uint64_t end_group(const volume& vol) {
    uint64_t group = vol.fri.size();
    while (group > 0 && !initialised(vol, group - 1)) {
        group--;
    }
    return group;
}

uint64_t spare_extents(const volume& vol) {
    return vol.free_count - (FRI_GROUP_CAPACITY - end_group(vol)) * TBL_GROUP_ENTRIES;
}

void initialise_group(model* m, size_t volume_index, uint64_t group) {
    volume& vol = m->volumes[volume_index];
    reach_group(&vol, group);
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        const uint64_t lpa = tbl_lpa_of(group, offset);
        const bool last = offset == TBL_GROUP_ENTRIES - 1;
        const unsigned link = last ? unsigned{TBL_TAIL_BIT} : offset + 1;
        set_tbl(m, volume_index, lpa, static_cast<uint16_t>((vol.tbl[lpa] & TBL_KEPT_BITS) | link));
    }
    fri_entry entry = vol.fri[group];
    fri_entry_set_init(&entry);
    fri_entry_set_count(&entry, TBL_GROUP_ENTRIES);
    fri_entry_set_head(&entry, 0);
    fri_entry_set_next(&entry, group + 1);
    set_fri(m, volume_index, group, entry);
}

std::vector<uint64_t> take_extents(model* m, size_t volume_index, uint64_t most) {
    volume& vol = m->volumes[volume_index];
    const uint64_t group = vol.group_head;
    if (!initialised(vol, group)) {
        initialise_group(m, volume_index, group);
    }
    fri_entry entry = vol.fri[group];
    const uint64_t count = std::min<uint64_t>(most, fri_entry_count(&entry));
    std::vector<uint64_t> taken;
    uint32_t head = fri_entry_head(&entry);
    for (uint64_t i = 0; i < count; i++) {
        const uint64_t lpa = tbl_lpa_of(group, head);
        const tbl_entry free = entry_at(vol, lpa);
        head = tbl_entry_count(&free);  // 0 for the tail
        set_tbl(m, volume_index, lpa, TBL_USED_BIT | 1);
        taken.push_back(lpa);
        vol.taken.push_back(lpa);
    }
    fri_entry_set_head(&entry, head);
    fri_entry_set_count(&entry, static_cast<uint32_t>(fri_entry_count(&entry) - count));
    set_fri(m, volume_index, group, entry);
    const uint64_t new_head = fri_entry_count(&entry) == 0 ? fri_entry_next(&entry) : group;
    set_fri_counters(m, volume_index, vol.free_count - count, new_head);
    return taken;
}

static void set_references(model* m, size_t volume_index, uint64_t lpa, uint32_t count) {
    tbl_entry entry = entry_at(m->volumes[volume_index], lpa);
    tbl_entry_set_count(&entry, count);
    set_tbl(m, volume_index, lpa, entry.word);
}

void add_reference(model* m, size_t volume_index, uint64_t lpa) {
    set_references(m, volume_index, lpa, references(m->volumes[volume_index], lpa) + 1);
}

void drop_reference(model* m, size_t volume_index, uint64_t lpa) {
    set_references(m, volume_index, lpa, references(m->volumes[volume_index], lpa) - 1);
}

void free_extent(model* m, size_t volume_index, uint64_t lpa) {
    const volume& vol = m->volumes[volume_index];
    const uint64_t group = tbl_group_of(lpa);
    fri_entry entry = vol.fri[group];
    const bool was_full = fri_entry_count(&entry) == 0;
    const unsigned link = was_full ? unsigned{TBL_TAIL_BIT} : fri_entry_head(&entry);
    set_tbl(m, volume_index, lpa, static_cast<uint16_t>((vol.tbl[lpa] & TBL_KEPT_BITS) | link));
    fri_entry_set_head(&entry, tbl_offset_in_group(lpa));
    fri_entry_set_count(&entry, fri_entry_count(&entry) + 1u);
    if (was_full) {
        fri_entry_set_next(&entry, vol.group_head);
    }
    set_fri(m, volume_index, group, entry);
    set_fri_counters(m, volume_index, vol.free_count + 1, was_full ? group : vol.group_head);
}

}  // namespace lab
